#include <zel/ByteAllocator.h>
#include <zel/observer_ptr.h>
#include <zelData/BinaryData.h>

#include <gtest/gtest.h>
#include <support/TempDirectory.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

using zel::ref_ptr;
using zelData::BinaryData;
using zelData::DataAllocationType;

TEST(BinaryDataTest, IsEmptyByDefault) {
    const ref_ptr<BinaryData> data(new BinaryData);
    EXPECT_EQ(data->getData(), nullptr);
    EXPECT_EQ(data->getSize(), 0U);
}

TEST(BinaryDataTest, ReleasesEachKindInItsWay) { // the sanitizers look on
    const ref_ptr<BinaryData> array(new BinaryData(10));
    EXPECT_EQ(array->getAllocationType(), DataAllocationType::NewArray);
    std::memset(array->getData(), 1, 10);
    const ref_ptr<BinaryData> aligned(new BinaryData(10, 256));
    EXPECT_EQ(aligned->getAllocationType(), DataAllocationType::Aligned);
    EXPECT_EQ(reinterpret_cast<zel::uint64>(aligned->getData()) % 256, 0U);
    std::memset(aligned->getData(), 1, 10);
    const ref_ptr<BinaryData> malloced(new BinaryData(std::malloc(5), 5, DataAllocationType::Malloc));
    EXPECT_EQ(malloced->getSize(), 5U);
    const ref_ptr<BinaryData> single(new BinaryData(new zel::uint8(3), 1, DataAllocationType::New));
    EXPECT_EQ(single->getData()[0], 3);
    const ref_ptr<BinaryData> given(new BinaryData(new zel::uint8[7], 7, DataAllocationType::NewArray));
    EXPECT_EQ(given->getSize(), 7U);
}

TEST(BinaryDataTest, KeepsTheOwnerOfItsBytes) {
    struct Owner : zel::Referenced {
        std::array<char, 4> bytes{'a', 'b', 'c', 'd'};
    };
    auto* owner = new Owner;
    zel::observer_ptr<Owner> watched(owner);
    ref_ptr<BinaryData> data(new BinaryData(owner->bytes.data(), 4, owner));
    EXPECT_EQ(data->getAllocationType(), DataAllocationType::Owner);
    EXPECT_EQ(data->getData()[3], 'd');
    EXPECT_EQ(owner->referenceCount(), 1);
    data = nullptr;
    EXPECT_EQ(watched.get(), nullptr);
}

TEST(BinaryDataTest, ReportsAnApparentSize) {
    const ref_ptr<BinaryData> data(new BinaryData(10));
    data->setApparentSize(4);
    EXPECT_EQ(data->getSize(), 4U);
}

TEST(BinaryDataTest, CopiesBytes) {
    const ref_ptr<BinaryData> data(BinaryData::copy("hello", 5));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(data->getData()), data->getSize()), "hello");
    EXPECT_EQ(data->getAllocationType(), DataAllocationType::NewArray);
    EXPECT_EQ(ref_ptr<BinaryData>(BinaryData::copy(nullptr, 0))->getSize(), 0U);
}

TEST(BinaryDataTest, ReadsFiles) {
    const zelTest::TempDirectory directory;
    const std::string content("a\r\n\0b\xFF", 6);
    const ref_ptr<BinaryData> data(BinaryData::readFromFile(directory.write("x", content)));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(data->getData()), data->getSize()), content);
    EXPECT_EQ(ref_ptr<BinaryData>(BinaryData::readFromFile(directory.write("empty")))->getSize(), 0U);
}

TEST(BinaryDataDeathTest, FilesThatCanNotBeReadEndTheProcess) {
    const zelTest::TempDirectory directory;
    EXPECT_DEATH(static_cast<void>(BinaryData::readFromFile(directory.path("none"))),
                 "Could not open binary file '" + directory.path("none") + "'\\.");
    EXPECT_DEATH(static_cast<void>(BinaryData::readFromFile(directory.path())), "Could not open binary file");
    std::array<int, 2> pipe{};
    ASSERT_EQ(::pipe(pipe.data()), 0);
    const std::string end = "/proc/self/fd/" + std::to_string(pipe[0]);
    EXPECT_DEATH(static_cast<void>(BinaryData::readFromFile(end)),
                 "zelVerify failed: `totNumBytes != std::ifstream::pos_type\\(-1\\)', Could not get size of "
                 "binary file '" +
                     end + "'\\.");
    close(pipe[0]);
    close(pipe[1]);
}

TEST(BinaryDataDeathTest, AFileThatIsShorterThanItSaysEndsTheProcess) {
    const std::string file = "/sys/devices/system/cpu/online"; // says 4096 bytes
    ASSERT_TRUE(std::filesystem::exists(file));
    EXPECT_DEATH(static_cast<void>(BinaryData::readFromFile(file)),
                 "zelVerify failed: `binaryFile.good\\(\\)', Could not read 4096 bytes from binary file '" +
                     file + "'");
}
