#include "BufferContent.h"

#include <zel/CpuDevice.h>
#include <zelData/Buffer.h>
#include <zelData/Channel.h>
#include <zelData/EntityStorage.h>
#include <zelData/Format.h>
#include <zelData/Type.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/MemoryDevice.h>

#include <algorithm>
#include <bit>
#include <numeric>
#include <random>
#include <string>
#include <vector>

using testing::ElementsAre;
using zel::Device;
using zel::ref_ptr;
using zelData::Buffer;
using zelData::Channel;
using zelData::getFormat;
using zelTest::contentOf;
using zelTest::MemoryDevice;

namespace {

constexpr auto OtherByteOrder = Device::NativeByteOrder == Device::ByteOrder::LittleEndian
                                    ? Device::ByteOrder::BigEndian
                                    : Device::ByteOrder::LittleEndian;

ref_ptr<Buffer> makeOn(const char* format, Device* device = nullptr) {
    ref_ptr<Buffer> buffer(new Buffer("b", getFormat(format)));
    if (device != nullptr)
        buffer->setDevice(device);
    return buffer;
}

ref_ptr<Buffer> numbers(std::initializer_list<double> values) {
    ref_ptr<Buffer> buffer = makeOn("Real:64bit");
    buffer->resize(values.size());
    std::copy(values.begin(), values.end(), buffer->data<double>());
    return buffer;
}

template <typename T>
T swapped(T value) {
    auto* bytes = reinterpret_cast<unsigned char*>(&value);
    std::reverse(bytes, bytes + sizeof(T));
    return value;
}

void run(Channel& channel, zel::uint64 targetOffset, zel::uint64 sourceOffset, zel::uint64 n, bool blocking) {
    EXPECT_TRUE(channel.transfer(targetOffset, sourceOffset, n, blocking));
    EXPECT_TRUE(channel.isActive());
    channel.postTransfer();
    EXPECT_FALSE(channel.isActive());
}

/// Both ways of every transfer.
class ChannelTest : public testing::TestWithParam<bool> {};

} // namespace

TEST_P(ChannelTest, CopiesInMainMemory) {
    const ref_ptr<Buffer> source = numbers({1, 2, 3});
    const ref_ptr<Buffer> target = numbers({9});
    const auto revision = target->getRevision();
    const ref_ptr<Channel> channel(new Channel(target.get(), source.get()));
    run(*channel, 1, 1, 2, GetParam());
    EXPECT_THAT(contentOf<double>(target), ElementsAre(9, 2, 3));
    EXPECT_GT(target->getRevision(), revision);
}

TEST_P(ChannelTest, ConvertsInMainMemory) {
    const ref_ptr<Buffer> source = numbers({1, 2.5});
    const ref_ptr<Buffer> texts = makeOn("Real:ascii");
    Channel toText(texts.get(), source.get());
    run(toText, 0, 0, 2, GetParam());
    EXPECT_THAT(contentOf<zel::String>(texts), ElementsAre("1", "2.5"));
    const ref_ptr<Buffer> narrow = makeOn("Real:32bit");
    Channel toNarrow(narrow.get(), texts.get());
    run(toNarrow, 0, 1, 1, GetParam());
    EXPECT_THAT(contentOf<float>(narrow), ElementsAre(2.5F));
}

TEST_P(ChannelTest, SendsAndReceivesDirectly) {
    const ref_ptr<MemoryDevice> device(new MemoryDevice);
    const ref_ptr<Buffer> there = makeOn("Real:64bit", device.get());
    Channel channel(there.get(), numbers({1, 2, 3}).get());
    run(channel, 1, 0, 3, GetParam());
    EXPECT_THAT(device->content<double>(there.get()), ElementsAre(0, 1, 2, 3));
    const ref_ptr<Buffer> back = makeOn("Real:64bit");
    Channel other(back.get(), there.get());
    run(other, 0, 2, 2, GetParam());
    EXPECT_THAT(contentOf<double>(back), ElementsAre(2, 3));
    EXPECT_EQ(device->numCalls, 2);
}

TEST_P(ChannelTest, SwapsForADeviceOfTheOtherByteOrder) {
    const ref_ptr<MemoryDevice> device(new MemoryDevice(OtherByteOrder));
    const ref_ptr<Buffer> there = makeOn("Real:64bit", device.get());
    Channel channel(there.get(), numbers({1.5, -2}).get());
    run(channel, 0, 0, 2, GetParam());
    EXPECT_THAT(device->content<double>(there.get()), ElementsAre(swapped(1.5), swapped(-2.0)));
    const ref_ptr<Buffer> back = makeOn("Real:64bit");
    Channel other(back.get(), there.get());
    run(other, 0, 0, 2, GetParam());
    EXPECT_THAT(contentOf<double>(back), ElementsAre(1.5, -2));
}

TEST_P(ChannelTest, SwapsAndConverts) {
    const ref_ptr<MemoryDevice> device(new MemoryDevice(OtherByteOrder));
    const ref_ptr<Buffer> there = makeOn("Real:32bit", device.get());
    Channel channel(there.get(), numbers({1.5, -2}).get());
    run(channel, 0, 0, 2, GetParam());
    EXPECT_THAT(
        device->content<zel::uint32>(there.get()),
        ElementsAre(swapped(std::bit_cast<zel::uint32>(1.5F)), swapped(std::bit_cast<zel::uint32>(-2.0F))));
    const ref_ptr<Buffer> back = makeOn("Real:64bit");
    Channel other(back.get(), there.get());
    run(other, 0, 0, 2, GetParam());
    EXPECT_THAT(contentOf<double>(back), ElementsAre(1.5, -2));
}

TEST_P(ChannelTest, GoesBetweenDevices) {
    for (const auto firstOrder : {Device::NativeByteOrder, OtherByteOrder})
        for (const auto secondOrder : {Device::NativeByteOrder, OtherByteOrder})
            for (const char* format : {"Real:64bit", "Real:32bit"}) {
                const ref_ptr<MemoryDevice> first(new MemoryDevice(firstOrder));
                const ref_ptr<MemoryDevice> second(new MemoryDevice(secondOrder));
                const ref_ptr<Buffer> a = makeOn("Real:64bit", first.get());
                const ref_ptr<Buffer> b = makeOn(format, second.get());
                const ref_ptr<Buffer> result = makeOn("Real:64bit");
                Channel in(a.get(), numbers({1, 2, 3, 4}).get());
                run(in, 0, 0, 4, GetParam());
                Channel across(b.get(), a.get());
                run(across, 0, 1, 3, GetParam());
                Channel out(result.get(), b.get());
                run(out, 0, 0, 3, GetParam());
                EXPECT_THAT(contentOf<double>(result), ElementsAre(2, 3, 4));
            }
}

TEST_P(ChannelTest, ACpuDeviceMayHaveTheOtherByteOrderToo) {
    const ref_ptr<zel::CpuDevice> device(new zel::CpuDevice("other"));
    device->setByteOrder(OtherByteOrder);
    const ref_ptr<Buffer> there = makeOn("Real:32bit", device.get());
    Channel channel(there.get(), numbers({3}).get());
    run(channel, 0, 0, 1, GetParam());
    EXPECT_EQ(std::bit_cast<zel::uint32>(there->data<float>()[0]), swapped(std::bit_cast<zel::uint32>(3.0F)));
    const ref_ptr<Buffer> back = makeOn("Real:64bit");
    Channel other(back.get(), there.get());
    run(other, 0, 0, 1, GetParam());
    EXPECT_THAT(contentOf<double>(back), ElementsAre(3));
}

TEST_P(ChannelTest, RandomTransfersKeepTheContent) {
    std::mt19937 random(11);
    const ref_ptr<MemoryDevice> device(new MemoryDevice(OtherByteOrder));
    const ref_ptr<Buffer> here = makeOn("Int:32bit");
    const ref_ptr<Buffer> there = makeOn("Int:64bit", device.get());
    here->resize(64);
    there->resize(64);
    std::vector<zel::int64> expectedThere(64, 0);
    Channel clear(there.get(), makeOn("Int:32bit").get());
    Channel out(there.get(), here.get());
    Channel in(here.get(), there.get());
    run(out, 0, 0, 64, GetParam());
    for (int step = 0; step < 300; ++step) {
        const zel::uint64 n = 1 + random() % 20;
        const zel::uint64 from = random() % (64 - n);
        const zel::uint64 to = random() % (64 - n);
        if (random() % 2 == 0) {
            for (zel::uint64 i = from; i < from + n; ++i)
                here->data<zel::int32>()[i] = static_cast<zel::int32>(random());
            run(out, to, from, n, GetParam());
            std::copy_n(here->data<zel::int32>() + from, n, expectedThere.begin() + static_cast<long>(to));
        } else {
            run(in, to, from, n, GetParam());
            for (zel::uint64 i = 0; i < n; ++i)
                ASSERT_EQ(here->data<zel::int32>()[to + i], expectedThere[from + i]);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Blocking, ChannelTest, testing::Bool());

TEST(ChannelBasicsTest, HasNothingToDoForNoElements) {
    const ref_ptr<Buffer> target = numbers({1});
    Channel channel(target.get(), numbers({2}).get());
    EXPECT_FALSE(channel.isActive());
    EXPECT_FALSE(channel.transfer(0, 0, 0, true));
    EXPECT_TRUE(channel.isActive());
    channel.postTransfer();
    EXPECT_FALSE(channel.isActive());
    EXPECT_THAT(contentOf<double>(target), ElementsAre(1));
}

TEST(ChannelBasicsTest, Flips) {
    const ref_ptr<Buffer> a = numbers({1});
    const ref_ptr<Buffer> b = numbers({2});
    Channel channel(a.get(), b.get());
    channel.flip();
    EXPECT_EQ(channel.getTarget(), b.get());
    EXPECT_EQ(channel.getSource(), a.get());
    run(channel, 0, 0, 1, true);
    EXPECT_THAT(contentOf<double>(b), ElementsAre(1));
}

TEST(ChannelBasicsTest, ATransferFinishesTheOneBefore) {
    const ref_ptr<MemoryDevice> device(new MemoryDevice(OtherByteOrder));
    const ref_ptr<Buffer> there = makeOn("Real:64bit", device.get());
    Channel out(there.get(), numbers({1, 2}).get());
    run(out, 0, 0, 2, true);
    const ref_ptr<Buffer> back = makeOn("Real:64bit");
    Channel in(back.get(), there.get());
    EXPECT_TRUE(in.transfer(0, 0, 1, false));
    EXPECT_TRUE(in.transfer(1, 1, 1, false));
    in.postTransfer();
    EXPECT_THAT(contentOf<double>(back), ElementsAre(1, 2));
}

TEST(ChannelDeathTest, ConnectsBuffersOfOneType) {
    EXPECT_DEATH(
        Channel(numbers({1}).get(), makeOn("Int").get()),
        "zelVerify failed: `target->getType\\(\\) == source->getType\\(\\)', Channels can only connect two "
        "buffers of the same type");
}

TEST(ChannelDeathTest, StaysWithinTheSource) {
    const ref_ptr<Buffer> source = numbers({1, 2});
    const ref_ptr<Buffer> target = numbers({});
    Channel channel(target.get(), source.get());
    EXPECT_DEATH(channel.transfer(0, 1, 2, true), "b: elements 1 to 3 of 2");
    EXPECT_DEATH(channel.transfer(~zel::uint64{0}, 0, 1, true),
                 "b: no elements 18446744073709551615 and more");
}

TEST(ChannelDeathTest, SendsPlainBytesOnly) {
    const ref_ptr<MemoryDevice> device(new MemoryDevice(OtherByteOrder));
    const ref_ptr<Buffer> texts = makeOn("Real:ascii");
    texts->resize(1);
    const ref_ptr<Buffer> there = makeOn("Real:64bit", device.get());
    Channel channel(there.get(), texts.get());
    EXPECT_DEATH(channel.transfer(0, 0, 1, true),
                 "b: elements of format 'Real:ascii' can not be transferred to other devices");
}

TEST(ChannelDeathTest, StaysWithinAColumnOfAStorage) {
    const ref_ptr<zelData::EntityStorage> storage(new zelData::EntityStorage("s"));
    storage->resize(2);
    const ref_ptr<Buffer> column = makeOn("Real:64bit");
    column->setContext(storage.get());
    column->connect(storage.get(), nullptr);
    const ref_ptr<Buffer> source = numbers({1, 2, 3});
    Channel channel(column.get(), source.get());
    EXPECT_DEATH(channel.transfer(0, 0, 3, true), "b: elements 0 to 3 of 2");
    run(channel, 0, 1, 2, true);
    EXPECT_EQ(contentOf<double>(column), (std::vector<double>{2, 3}));
    column->disconnect();
}

TEST(ChannelTest, GrowsATargetOfSeveralElementsForEachEntry) {
    const ref_ptr<Buffer> target = makeOn("Real:64bit");
    const ref_ptr<zelData::ValueT<zel::uint64>> two(new zelData::ValueT<zel::uint64>("two", 2));
    target->setElementArraySize(two.get());
    const ref_ptr<Buffer> source = numbers({1, 2, 3});
    Channel channel(target.get(), source.get());
    run(channel, 0, 0, 3, true);
    EXPECT_EQ(target->size(), 4U);
    EXPECT_EQ(target->data<double>()[2], 3);
}
