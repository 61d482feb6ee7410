#include <zelData/Buffer.h>
#include <zelData/Format.h>
#include <zelData/Type.h>
#include <zelData/ValueT.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <string>
#include <vector>

using testing::ElementsAre;
using zel::ref_ptr;
using zel::uint32;
using zelData::Array;
using zelData::Buffer;
using zelData::getFormat;

namespace {

ref_ptr<Buffer> numbers(zel::uint64 n, double first = 0) {
    const ref_ptr<Buffer> buffer(new Buffer("b", getFormat("Real:64bit")));
    buffer->resize(n);
    std::iota(buffer->data<double>(), buffer->data<double>() + n, first);
    return buffer;
}

ref_ptr<Buffer> texts(std::initializer_list<const char*> elements) {
    const ref_ptr<Buffer> buffer(new Buffer("t", getFormat("String")));
    buffer->resize(elements.size());
    zel::uint64 i = 0;
    for (const char* element : elements)
        buffer->data<zel::String>()[i++] = element;
    return buffer;
}

std::vector<double> contentOf(const ref_ptr<Buffer>& buffer) {
    return {buffer->data<double>(), buffer->data<double>() + buffer->size()};
}

std::vector<std::string> textsOf(const ref_ptr<Buffer>& buffer) {
    return {buffer->data<zel::String>(), buffer->data<zel::String>() + buffer->size()};
}

} // namespace

TEST(BufferCopyTest, CopiesAllElements) {
    const ref_ptr<Buffer> target = numbers(1);
    const auto revision = target->getRevision();
    Buffer::copy(target.get(), numbers(3, 5).get());
    EXPECT_THAT(contentOf(target), ElementsAre(5, 6, 7));
    EXPECT_GT(target->getRevision(), revision);
    Buffer::copy(target.get(), numbers(1, 1).get());
    EXPECT_THAT(contentOf(target), ElementsAre(1, 6, 7));
    Buffer::copy(target.get(), numbers(0).get());
    EXPECT_EQ(target->size(), 3U);
}

TEST(BufferCopyTest, CopiesARange) {
    const ref_ptr<Buffer> target = numbers(5);
    Buffer::copy(target.get(), 1, numbers(4, 10).get(), 2, 2);
    EXPECT_THAT(contentOf(target), ElementsAre(0, 12, 13, 3, 4));
    Buffer::copy(target.get(), 5, numbers(4).get(), 4, 0);
    const ref_ptr<Buffer> strings = texts({"a", "b"});
    Buffer::copy(strings.get(), 0, texts({"x", "y"}).get(), 1, 1);
    EXPECT_THAT(textsOf(strings), ElementsAre("y", "b"));
}

TEST(BufferCopyTest, GathersAndScatters) {
    zel::VectorPOD<uint32> indices{3, 0, 2};
    const ref_ptr<Buffer> gathered = numbers(3);
    Buffer::copyGather(gathered.get(), numbers(4, 10).get(), Array<uint32>(indices));
    EXPECT_THAT(contentOf(gathered), ElementsAre(13, 10, 12));
    const ref_ptr<Buffer> scattered = numbers(4);
    Buffer::copyScatter(scattered.get(), numbers(3, 20).get(), Array<uint32>(indices));
    EXPECT_THAT(contentOf(scattered), ElementsAre(21, 1, 22, 20));
    Buffer::copyGather(scattered.get(), scattered.get(), Array<uint32>(indices));
    EXPECT_THAT(contentOf(scattered), ElementsAre(20, 20, 22, 20)); // one after the other
    const ref_ptr<Buffer> strings = texts({"a", "b", "c", "d"});
    Buffer::copyScatter(strings.get(), texts({"x", "y", "z"}).get(), Array<uint32>(indices));
    EXPECT_THAT(textsOf(strings), ElementsAre("y", "b", "z", "x"));
    Buffer::copyGather(strings.get(), texts({"1", "2", "3", "4"}).get(), Array<uint32>(indices));
    EXPECT_THAT(textsOf(strings), ElementsAre("4", "1", "3", "x"));
}

TEST(BufferCopyTest, ScattersElementsOfAllSizes) {
    zel::VectorPOD<uint32> indices{4, 2, 0, 1, 3};
    for (const char* format : {"UInt:8bit",
                               "UInt:16bit",
                               "UInt:32bit",
                               "UInt:64bit",
                               "Vec2:64bit",
                               "Vec3:64bit",
                               "Matrix3x3:64bit",
                               "Vec3i:8bit"}) {
        SCOPED_TRACE(format);
        const ref_ptr<Buffer> source(new Buffer(getFormat(format)));
        const ref_ptr<Buffer> target(new Buffer(getFormat(format)));
        source->resize(5);
        target->resize(5);
        const zel::uint64 numBytes = 5 * source->getElementSize();
        std::iota(source->data<unsigned char>(), source->data<unsigned char>() + numBytes, '\1');
        Buffer::copyScatter(target.get(), source.get(), Array<uint32>(indices));
        for (uint32 i = 0; i < 5; ++i)
            EXPECT_EQ(
                std::memcmp(target->getElement(indices[i]), source->getElement(i), source->getElementSize()),
                0);
    }
}

TEST(BufferCopyTest, Clones) {
    const ref_ptr<Buffer> buffer = numbers(5);
    const ref_ptr<zelData::ValueT<double>> seven(new zelData::ValueT<double>("d", 7));
    buffer->setDefaultValue(seven.get());
    const ref_ptr<Buffer> clone(buffer->clone());
    EXPECT_EQ(clone->getName(), buffer->getName());
    EXPECT_EQ(contentOf(clone), contentOf(buffer));
    EXPECT_NE(clone->getPtr(), buffer->getPtr());
    EXPECT_EQ(clone->getOriginalBuffer(), buffer.get());
    clone->resize(6);
    EXPECT_EQ(clone->data<double>()[5], 7.0);
    EXPECT_EQ(ref_ptr<Buffer>(numbers(0)->clone())->size(), 0U);
    const ref_ptr<Buffer> strings = texts({"a", "b"});
    EXPECT_THAT(textsOf(ref_ptr<Buffer>(strings->clone())), ElementsAre("a", "b"));
}

TEST(BufferCopyTest, ClonesParts) {
    const ref_ptr<Buffer> buffer = numbers(5);
    EXPECT_THAT(contentOf(ref_ptr<Buffer>(buffer->clone(Buffer::Range(1, 3)))), ElementsAre(1, 2));
    EXPECT_EQ(ref_ptr<Buffer>(buffer->clone(Buffer::Range(5, 5)))->size(), 0U);
    zel::VectorPOD<uint32> indices{4, 4, 0};
    EXPECT_THAT(contentOf(ref_ptr<Buffer>(buffer->clone(indices))), ElementsAre(4, 4, 0));
    EXPECT_THAT(contentOf(ref_ptr<Buffer>(buffer->clone(Array<uint32>(indices)))), ElementsAre(4, 4, 0));
    EXPECT_THAT(textsOf(ref_ptr<Buffer>(texts({"a", "b", "c", "d", "e"})->clone(indices))),
                ElementsAre("e", "e", "a"));
}

TEST(BufferCopyTest, ClonesTheElementBuffer) {
    const ref_ptr<Buffer> buffer = numbers(2);
    buffer->setElementBuffer(numbers(3).get());
    const ref_ptr<Buffer> clone(buffer->clone());
    ASSERT_NE(clone->getElementBuffer(), nullptr);
    EXPECT_NE(clone->getElementBuffer(), buffer->getElementBuffer());
    EXPECT_EQ(clone->getElementBuffer()->size(), 3U);
}

TEST(BufferCopyDeathTest, ElementBuffersAreNotClonedInParts) {
    const ref_ptr<Buffer> buffer = numbers(2);
    buffer->setElementBuffer(numbers(3).get());
    const char* message =
        "zelVerify failed: `!this->getElementBuffer\\(\\)', b: TODO: Support element buffer in "
        "subset cloning!";
    zel::VectorPOD<uint32> indices{0};
    EXPECT_DEATH(static_cast<void>(buffer->clone(Buffer::Range(0, 1))), message);
    EXPECT_DEATH(static_cast<void>(buffer->clone(indices)), message);
}

TEST(BufferCopyDeathTest, DemandsOneFormat) {
    const ref_ptr<Buffer> target = numbers(2);
    const ref_ptr<Buffer> source(new Buffer(getFormat("Real:32bit")));
    const char* message =
        "zelVerify failed: `target->getFormat\\(\\) == source->getFormat\\(\\)', Format mismatch, "
        "target: 'Real:64bit', source 'Real:32bit'";
    EXPECT_DEATH(Buffer::copy(target.get(), source.get()), message);
    EXPECT_DEATH(Buffer::copy(target.get(), 0, source.get(), 0, 0), message);
    EXPECT_DEATH(Buffer::copyGather(target.get(), source.get(), {}), message);
    EXPECT_DEATH(Buffer::copyScatter(target.get(), source.get(), {}), message);
}

TEST(BufferCopyDeathTest, StaysWithinTheBuffers) {
    const ref_ptr<Buffer> target = numbers(2);
    const ref_ptr<Buffer> source = numbers(3);
    EXPECT_DEATH(Buffer::copy(target.get(), 1, source.get(), 0, 2), "b: elements 1 to 3 of 2");
    EXPECT_DEATH(Buffer::copy(target.get(), 0, source.get(), 3, 1), "b: elements 3 to 4 of 3");
    EXPECT_DEATH(Buffer::copy(target.get(), 1, source.get(), 0, ~zel::uint64{0}), "b: elements 1 to");
    EXPECT_DEATH(static_cast<void>(source->clone(Buffer::Range(2, 4))), "b: elements 2 to 4 of 3");
    EXPECT_DEATH(static_cast<void>(source->clone(zel::VectorPOD<uint32>{3})), "b: elements 3 to 4 of 3");
}

TEST(BufferCopyTest, RangesMayOverlap) {
    const ref_ptr<Buffer> words = texts({"zero", "one", "two", "three", "four"});
    Buffer::copy(words.get(), 1, words.get(), 0, 4);
    EXPECT_THAT(textsOf(words), ElementsAre("zero", "zero", "one", "two", "three"));
    Buffer::copy(words.get(), 0, words.get(), 2, 3);
    EXPECT_THAT(textsOf(words), ElementsAre("one", "two", "three", "two", "three"));
    const ref_ptr<Buffer> values = numbers(5);
    Buffer::copy(values.get(), 2, values.get(), 0, 3);
    EXPECT_THAT(contentOf(values), ElementsAre(0, 1, 0, 1, 2));
}

TEST(BufferCopyTest, ACloneHasAsManyElementsForEachEntry) {
    const ref_ptr<Buffer> source(new Buffer("b", getFormat("Real:64bit")));
    const ref_ptr<zelData::ValueT<zel::uint64>> three(new zelData::ValueT<zel::uint64>("three", 3));
    source->setElementArraySize(three.get());
    source->resize(4);
    std::iota(source->data<double>(), source->data<double>() + 12, 0);
    const ref_ptr<Buffer> clone(source->clone());
    EXPECT_EQ(clone->getElementArraySize(), 3U);
    EXPECT_EQ(clone->getNumElementsValue()->get(), 4U);
    EXPECT_EQ(contentOf(clone), contentOf(source));
    clone->resize(5);
    EXPECT_EQ(clone->size(), 15U);
    EXPECT_EQ(clone->data<double>()[11], 11);
    EXPECT_EQ(clone->capacity(), 3 * clone->getCapacityValue()->get());
}

TEST(BufferCopyTest, ACloneOfRawElementsIsConstructed) {
    const ref_ptr<Buffer> source = texts({"a text that has memory of its own", "b"});
    source->setElementInitializer({});
    const ref_ptr<Buffer> clone(source->clone());
    EXPECT_EQ(textsOf(clone), textsOf(source));
}
