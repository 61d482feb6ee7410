#include <zel/Vector.h>
#include <zelData/Buffer.h>
#include <zelData/BufferProxyAllocator.h>
#include <zelData/Format.h>
#include <zelData/Type.h>
#include <zelData/ValueT.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

using testing::ElementsAre;
using zel::ref_ptr;
using zelData::Buffer;
using zelData::BufferProxyAllocator;
using zelData::getFormat;

namespace {

using Numbers = zel::VectorPOD<double, BufferProxyAllocator>;
using Texts = zel::Vector<zel::String, BufferProxyAllocator>;

ref_ptr<Buffer> numberBuffer() {
    return new Buffer("b", getFormat("Real:64bit"));
}

std::string longText(int i) {
    return "a text that is long enough for the heap " + std::to_string(i);
}

} // namespace

TEST(BufferProxyAllocatorTest, AVectorLivesInABuffer) {
    const ref_ptr<Buffer> buffer = numberBuffer();
    Numbers numbers;
    numbers.allocator().setBuffer(buffer.get());
    EXPECT_EQ(buffer->getSharedContainer(), &numbers);
    for (int i = 0; i < 100; ++i)
        numbers.push_back(i);
    EXPECT_EQ(buffer->getPtr(), numbers.data());
    EXPECT_EQ(buffer->size(), 0U);
    const auto revision = buffer->getRevision();
    numbers.allocator().commit();
    EXPECT_EQ(buffer->size(), 100U);
    EXPECT_EQ(buffer->getNumElementsValue()->get(), 100U);
    EXPECT_EQ(buffer->capacity(), numbers.capacity());
    EXPECT_GT(buffer->getRevision(), revision);
    EXPECT_EQ(buffer->data<double>()[99], 99.0);
    EXPECT_EQ(reinterpret_cast<zel::uint64>(numbers.data()) % Buffer::ALIGNMENT, 0U);
}

TEST(BufferProxyAllocatorTest, TheContentStaysWhenTheVectorGoes) {
    const ref_ptr<Buffer> buffer = numberBuffer();
    {
        Numbers numbers;
        numbers.allocator().setBuffer(buffer.get());
        for (int i = 0; i < 10; ++i)
            numbers.push_back(i);
        EXPECT_EQ(numbers.allocator().getNumAllocations(), 0); // each was answered by a release
        numbers.allocator().commit();
    }
    EXPECT_EQ(buffer->getSharedContainer(), nullptr);
    EXPECT_EQ(buffer->size(), 10U);
    EXPECT_EQ(buffer->data<double>()[9], 9.0);
    EXPECT_EQ(buffer->referenceCount(), 1);
}

TEST(BufferProxyAllocatorTest, TakesTheElementsThatTheBufferHas) {
    const ref_ptr<Buffer> buffer(new Buffer("t", getFormat("String")));
    buffer->resize(3);
    for (int i = 0; i < 3; ++i)
        buffer->data<zel::String>()[i] = longText(i);
    {
        Texts texts;
        texts.allocator().setBuffer(buffer.get());
        ASSERT_EQ(texts.size(), 3U);
        for (int i = 3; i < 50; ++i)
            texts.push_back(longText(i));
        texts.erase(texts.begin());
        texts.allocator().commit();
        EXPECT_EQ(buffer->size(), 49U);
        EXPECT_EQ(buffer->data<zel::String>()[48], longText(49));
    }
    EXPECT_EQ(buffer->size(), 0U); // the vector has destroyed its elements
    buffer->resize(5);
    EXPECT_EQ(buffer->data<zel::String>()[4], "");
}

TEST(BufferProxyAllocatorTest, TheVectorFollowsTheBuffer) {
    const ref_ptr<Buffer> buffer = numberBuffer();
    Numbers numbers;
    numbers.allocator().setBuffer(buffer.get());
    buffer->resize(5);
    EXPECT_EQ(numbers.size(), 5U);
    EXPECT_EQ(numbers.capacity(), 7U);
    EXPECT_EQ(numbers.data(), buffer->getPtr());
    numbers[4] = 8;
    buffer->resize(100);
    EXPECT_EQ(numbers.data(), buffer->getPtr());
    EXPECT_EQ(numbers[4], 8.0);
    numbers.push_back(9);
    numbers.allocator().commit();
    EXPECT_EQ(buffer->size(), 101U);
    EXPECT_EQ(buffer->data<double>()[100], 9.0);
}

TEST(BufferProxyAllocatorTest, MovesWithItsVector) {
    const ref_ptr<Buffer> buffer = numberBuffer();
    Numbers numbers;
    numbers.allocator().setBuffer(buffer.get());
    numbers.push_back(1);
    Numbers moved(std::move(numbers));
    EXPECT_EQ(buffer->getSharedContainer(), &moved);
    moved.push_back(2);
    Numbers assigned;
    assigned = std::move(moved);
    EXPECT_EQ(buffer->getSharedContainer(), &assigned);
    for (int i = 3; i < 20; ++i)
        assigned.push_back(i);
    assigned.allocator().commit();
    EXPECT_EQ(buffer->size(), 19U);
    EXPECT_EQ(buffer->data<double>()[18], 19.0);
}

TEST(BufferProxyAllocatorTest, AssignmentKeepsTheBuffer) {
    const ref_ptr<Buffer> buffer = numberBuffer();
    Numbers numbers;
    numbers.allocator().setBuffer(buffer.get());
    for (int i = 0; i < 10; ++i)
        numbers.push_back(i);
    const Numbers plain{1, 2, 3};
    numbers = plain;
    EXPECT_THAT(std::vector<double>(numbers.begin(), numbers.end()), ElementsAre(1, 2, 3));
    EXPECT_EQ(buffer->getPtr(), numbers.data());
    numbers.allocator().commit();
    EXPECT_EQ(buffer->size(), 3U);
    EXPECT_EQ(buffer->data<double>()[2], 3.0);
}

TEST(BufferProxyAllocatorTest, AllocatesPlainlyWithoutABuffer) {
    Texts texts;
    for (int i = 0; i < 100; ++i)
        texts.push_back(longText(i));
    const Texts copy(texts);
    EXPECT_EQ(copy[99], longText(99));
    EXPECT_EQ(texts.allocator().getBuffer(), nullptr);
}

TEST(BufferProxyAllocatorDeathTest, VectorsInBuffersAreNotCopied) {
    Numbers numbers;
    numbers.allocator().setBuffer(numberBuffer().get());
    const char* message =
        "zelVerify failed: `other\\.m_buffer==nullptr', Not legal to copy a Vector that uses a "
        "zelData::Buffer as memory storage\\.";
    EXPECT_DEATH(Numbers copy(numbers), message);
    Numbers other;
    EXPECT_DEATH(other = numbers, message);
    BufferProxyAllocator& self = numbers.allocator();
    self = numbers.allocator();
    EXPECT_NE(numbers.allocator().getBuffer(), nullptr);
}

TEST(BufferProxyAllocatorDeathTest, TakesABufferOnlyWhileEmpty) {
    Numbers numbers{1, 2};
    EXPECT_DEATH(numbers.allocator().setBuffer(numberBuffer().get()),
                 "Only an empty Vector can take a zelData::Buffer as memory storage\\.");
    Numbers empty;
    EXPECT_DEATH(empty.allocator().commit(), "zelVerify failed");
    EXPECT_DEATH(empty.allocator().setBuffer(ref_ptr<Buffer>(new Buffer("v", getFormat("Void"))).get()),
                 "v: The buffer can not be the memory storage of a Vector\\.");
}

TEST(BufferProxyAllocatorTest, TheValueShowsWhatAVectorOfTextsLeaves) {
    const ref_ptr<Buffer> buffer(new Buffer("b", getFormat("String")));
    {
        Texts texts;
        texts.allocator().setBuffer(buffer.get());
        texts.push_back(longText(1));
        texts.push_back(longText(2));
        texts.allocator().commit();
        texts.allocator().commit();
        EXPECT_EQ(buffer->getNumElementsValue()->get(), 2U);
    }
    EXPECT_EQ(buffer->getNumElementsValue()->get(), buffer->size());
}
