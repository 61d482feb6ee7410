#include "Elements.h"

#include <zel/Name.h>
#include <zel/RangeJob.h>
#include <zel/Vec.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/ArrayFormat.h>
#include <zelData/ContainerFormat.h>
#include <zelData/FormatT.h>
#include <zelData/GenericFormat.h>
#include <zelData/Value.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/LogCapture.h>

#include <array>
#include <cstring>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;
using zelData::Format;
using zelData::FormatT;

namespace {

void noCopy(void*, const void*, zel::uint64) {}

class FormatTest : public ::testing::Test {
protected:
    static zel::ref_ptr<Format> bare() { return new Format("bare", "Implementation", 8, nullptr, &noCopy); }
};
using FormatDeathTest = FormatTest;

/// Counts what the operations of a format do to it.
struct Counted {
    static inline int s_alive = 0;
    static inline int s_copies = 0;
    static inline int s_moves = 0;
    int value = 5;

    Counted() { ++s_alive; }
    Counted(const Counted& other) : value(other.value) { ++s_alive; }
    Counted(Counted&&) = delete;
    ~Counted() { --s_alive; }
    Counted& operator=(const Counted& other) {
        value = other.value;
        ++s_copies;
        return *this;
    }
    Counted& operator=(Counted&& other) noexcept {
        value = std::exchange(other.value, -1);
        ++s_moves;
        return *this;
    }
    friend void swap(Counted& a, Counted& b) noexcept { std::swap(a.value, b.value); }
};

} // namespace

TEST_F(FormatDeathTest, TheBaseClassImplementsNoOperation) {
    const zel::ref_ptr<Format> format = bare();
    char a[8] = {};
    char b[8] = {};
    const zel::uint32 permutation[1] = {};
    const auto dies = [](const std::string& what) {
        return "src/data/Format\\.cpp:[0-9]+\\] zelAbort: Format::" + what + " must be overloaded!";
    };
    EXPECT_DEATH(format->initializeElement(a, b), dies("initializeElements"));
    EXPECT_DEATH(format->initializeElements(a, b, 1), dies("initializeElements"));
    EXPECT_DEATH(format->constructElement(a), dies("constructElements"));
    EXPECT_DEATH(format->constructElements(a, 1), dies("constructElements"));
    EXPECT_DEATH(format->destroyElement(a), dies("destroyElements"));
    EXPECT_DEATH(format->destroyElements(a, 1), dies("destroyElements"));
    EXPECT_DEATH(format->copyElement(a, b), dies("copyElements"));
    EXPECT_DEATH(format->copyElements(a, b, 1), dies("copyElements"));
    EXPECT_DEATH(format->moveElement(a, b), dies("copyElements"));
    EXPECT_DEATH(format->moveElements(a, b, 1), dies("copyElements"));
    EXPECT_DEATH(format->permuteElements(a, b, permutation, 1), dies("permuteElements"));
    EXPECT_DEATH(format->swapElements(a, b), dies("copyElements"));
}

TEST_F(FormatTest, KeepsWhatItIsMadeOf) {
    const zel::ref_ptr<Format> format = bare();
    EXPECT_EQ(format->getName(), zel::Name("bare"));
    EXPECT_EQ(static_cast<zel::Model*>(format.get())->getImplementationName(), zel::Name("Implementation"));
    EXPECT_EQ(format->getSize(), 8U);
    EXPECT_EQ(format->getSwapFunction(), nullptr);
    EXPECT_EQ(format->getType(), nullptr);
    EXPECT_EQ(zelData::getTransformer(format.get(), format.get()), &noCopy);
    EXPECT_TRUE(format->getModel()->is(Format::ClassModel()));
}

TEST_F(FormatTest, FullNameWithoutATypeIsTheBareName) {
    const zel::ref_ptr<Format> format = bare();
    EXPECT_EQ(format->fullName(), "bare");
    EXPECT_EQ(zelData::getFormat("Real:64bit")->fullName(), "Real:64bit");
}

TEST_F(FormatTest, TheSingularFormatsHaveNoContent) {
    EXPECT_EQ(Format::Auto()->fullName(), "Auto:default");
    EXPECT_EQ(Format::Void()->fullName(), "Void:void");
    EXPECT_EQ(Format::Auto()->getSize(), 0U);
    EXPECT_EQ(Format::Void()->getSize(), 0U);
    EXPECT_EQ(Format::Auto(), zelData::getFormat("Auto"));
}

TEST_F(FormatTest, ATemplateFormatTakesSizeNameAndCopyFromItsClass) {
    const zel::ref_ptr<FormatT<Counted>> format(new FormatT<Counted>("counted"));
    EXPECT_EQ(format->getSize(), sizeof(Counted));
    EXPECT_EQ(static_cast<zel::Model*>(format.get())->getImplementationName(),
              zel::Name(typeid(Counted).name()));
    EXPECT_EQ(zelData::getTransformer(format.get(), format.get()), &zelData::GenericCopyFunction<Counted>);
}

TEST_F(FormatTest, ATemplateFormatDoesWhatTheLanguageDoes) {
    const zel::ref_ptr<Format> format(new FormatT<Counted>("counted"));
    {
        zelTest::Elements a(format.get(), 3);
        zelTest::Elements b(format.get(), 3);
        EXPECT_EQ(Counted::s_alive, 6);
        a.as<Counted>()[0].value = 1;
        a.as<Counted>()[1].value = 2;
        a.as<Counted>()[2].value = 3;
        format->copyElement(b.data(), a.data());
        format->copyElements(b.data(), a.data(), 3);
        EXPECT_EQ(Counted::s_copies, 4);
        EXPECT_EQ(b.as<Counted>()[2].value, 3);
        const std::array<zel::uint32, 3> permutation{2, 0, 1};
        format->permuteElements(b.data(), a.data(), permutation.data(), 3);
        EXPECT_EQ(b.as<Counted>()[0].value, 3);
        EXPECT_EQ(b.as<Counted>()[1].value, 1);
        EXPECT_EQ(b.as<Counted>()[2].value, 2);
        format->moveElement(b.at(1), a.at(2));
        format->moveElements(b.data(), a.data(), 1);
        EXPECT_EQ(Counted::s_moves, 2);
        EXPECT_EQ(a.as<Counted>()[2].value, -1);
        EXPECT_EQ(b.as<Counted>()[1].value, 3);
        format->swapElements(b.at(0), b.at(1));
        EXPECT_EQ(b.as<Counted>()[0].value, 3);

        alignas(Counted) std::array<char, 2 * sizeof(Counted)> raw{};
        format->initializeElements(raw.data(), b.at(2), 2);
        EXPECT_EQ(reinterpret_cast<Counted*>(raw.data())[1].value, 2);
        EXPECT_EQ(Counted::s_alive, 8);
        format->destroyElement(raw.data());
        format->destroyElements(raw.data() + sizeof(Counted), 1);
        EXPECT_EQ(Counted::s_alive, 6);
    }
    EXPECT_EQ(Counted::s_alive, 0);
}

TEST_F(FormatTest, NumbersAreConstructedAsZero) {
    std::array<double, 3> memory{1, 2, 3};
    zelData::getFormat("Real:64bit")->constructElements(memory.data(), 2);
    EXPECT_THAT(memory, ElementsAre(0, 0, 3));
}

TEST_F(FormatTest, MovingANameLeavesTheSourceIntact) {
    zel::Name source("kept");
    zel::Name target("old");
    const Format* format = zelData::getFormat("Name:default");
    format->moveElement(&target, &source);
    EXPECT_EQ(source, zel::Name("kept"));
    EXPECT_EQ(target, zel::Name("kept"));
    format->moveElements(&target, &source, 1);
    EXPECT_EQ(source, zel::Name("kept"));
}

TEST_F(FormatTest, MovingAStringTakesItsContent) {
    zel::String source(100, 'x');
    const char* const content = source.data();
    zel::String target;
    zelData::getFormat("String:default")->moveElement(&target, &source);
    EXPECT_EQ(target.data(), content);
}

TEST_F(FormatTest, CopiesRunUpwardsThroughOverlappingElements) {
    std::array<int, 4> numbers{1, 2, 3, 4};
    zelData::getFormat("Int:32bit")->copyElements(numbers.data(), numbers.data() + 1, 3);
    EXPECT_THAT(numbers, ElementsAre(2, 3, 4, 4));
}

TEST_F(FormatTest, JobsAreElementsToo) {
    zelTest::Elements jobs("RangeJob:default", 2);
    int calls = 0;
    jobs.as<zel::RangeJob>()[0].setRangeCallback([&calls](const zel::RangeJob&) { ++calls; });
    jobs.format()->copyElement(jobs.at(1), jobs.at(0));
    jobs.as<zel::RangeJob>()[1].implementation();
    EXPECT_EQ(calls, 1);
}

TEST_F(FormatTest, SwapByteOrderCallsTheSwapFunction) {
    const zel::uint32 source[2] = {0x01020304, 0x0A0B0C0D};
    zel::uint32 target[2] = {};
    zelData::getFormat("UInt:32bit")->swapByteOrder(target, source, 2);
    EXPECT_THAT(target, ElementsAre(0x04030201U, 0x0D0C0B0AU));
}

TEST_F(FormatDeathTest, AFormatWithoutByteOrderSaysSo) {
    char a[64] = {};
    EXPECT_DEATH(zelData::getFormat("String:default")->swapByteOrder(a, a, 1),
                 "Format 'String:default' has no byte order");
}

TEST_F(FormatDeathTest, AContainerNeedsAnElementFormat) {
    EXPECT_DEATH(zelData::ContainerFormat("container", nullptr, 24), "zelVerify failed: `elementFormat'");
    EXPECT_DEATH(zelData::ArrayFormat(nullptr), "zelVerify failed: `elementFormat'");
}

TEST_F(FormatTest, AnArrayIsThreeWordsThatAreCopiedBitwise) {
    const zel::ref_ptr<zelData::ArrayFormat> format(
        new zelData::ArrayFormat(zelData::getFormat("Real:32bit")));
    EXPECT_EQ(format->getName(), zel::Name("Array"));
    EXPECT_EQ(format->getSize(), 24U);
    EXPECT_EQ(format->getElementFormat(), zelData::getFormat("Real:32bit"));
    EXPECT_TRUE(static_cast<zel::Model*>(format.get())->getImplementationName().empty());
    const std::array<zel::uint64, 3> words{1, 2, 3};
    std::array<zel::uint64, 3> copy{};
    format->initializeElement(copy.data(), words.data());
    EXPECT_EQ(copy, words);
    format->destroyElement(copy.data());
    EXPECT_EQ(copy, words);
    format->constructElement(copy.data());
    EXPECT_THAT(copy, ElementsAre(0U, 0U, 0U));
}

TEST_F(FormatTest, AGenericFormatIsABlockOfBytes) {
    const zel::ref_ptr<zelData::GenericFormat> format(new zelData::GenericFormat(3));
    EXPECT_EQ(format->getName(), zel::Name("3 bytes"));
    EXPECT_TRUE(static_cast<zel::Model*>(format.get())->getImplementationName().empty());
    EXPECT_EQ(format->getSize(), 3U);
    char memory[10] = "abcdefghi";
    format->swapElements(memory, memory + 6);
    EXPECT_STREQ(memory, "ghidefabc");
    format->copyElement(memory, memory + 3);
    EXPECT_STREQ(memory, "defdefabc");
    char target[10] = "---------";
    const zel::uint32 permutation[3] = {2, 0, 1};
    format->permuteElements(target, memory, permutation, 3);
    EXPECT_STREQ(target, "abcdefdef");
    format->initializeElements(target, memory + 6, 2);
    EXPECT_STREQ(target, "abcabcdef");
    format->constructElements(target + 3, 2);
    EXPECT_EQ(std::memcmp(target, "abc\0\0\0\0\0\0", 9), 0);
    zelData::getTransformer(format.get(), format.get())(target, memory, 3);
    EXPECT_STREQ(target, "defdefabc");
    format->destroyElements(target, 3);
    EXPECT_STREQ(target, "defdefabc");
}

TEST_F(FormatTest, GenericFormatsOfOneSizeShareACopyFunction) {
    const zel::ref_ptr<zelData::GenericFormat> a(new zelData::GenericFormat(40));
    const zel::ref_ptr<zelData::GenericFormat> b(new zelData::GenericFormat(40));
    const zel::ref_ptr<zelData::GenericFormat> c(new zelData::GenericFormat(48));
    EXPECT_EQ(zelData::getTransformer(a.get(), a.get()), zelData::getTransformer(b.get(), b.get()));
    EXPECT_NE(zelData::getTransformer(a.get(), a.get()), zelData::getTransformer(c.get(), c.get()));
}

TEST_F(FormatTest, PrimitivesTellStrideAndPadding) {
    std::string calls;
    const auto list =
        zelData::CallbackList::forAll([&calls]<typename T>(unsigned int stride, unsigned int padding) {
            calls += std::string(typeid(T).name()) + " " + std::to_string(stride) + " " +
                     std::to_string(padding) + ";";
        });
    for (const char* name : {"Vec3:32bit",
                             "Vec3i:8bit",
                             "Bool:8bit",
                             "UInt:64bit",
                             "Matrix4x4:64bit",
                             "Bound3:64bit",
                             "IndexRange:32bit"})
        EXPECT_TRUE(Format::callFormatPrimitive(zelData::getFormat(name), list));
    EXPECT_EQ(calls, "f 4 1;a 3 0;b 1 0;m 1 0;d 16 0;d 8 1;j 2 0;");
}

TEST_F(FormatTest, AListWithoutACallbackForThePrimitiveGivesFalse) {
    zelData::CallbackList list;
    list.set<float>([](unsigned int, unsigned int) {});
    EXPECT_TRUE(Format::callFormatPrimitive(zelData::getFormat("Real:32bit"), list));
    EXPECT_FALSE(Format::callFormatPrimitive(zelData::getFormat("Real:64bit"), list));
}

TEST_F(FormatTest, AFormatWithoutPrimitivesIsAWarning) {
    zelCore::init();
    {
        zelTest::LogCapture log;
        EXPECT_FALSE(
            Format::callFormatPrimitive(zelData::getFormat("String:default"), zelData::CallbackList()));
        EXPECT_THAT(log.texts(), ElementsAre("Format: No primitive coupling for format 'String:default'\n"));
        EXPECT_THAT(log.levels(), ElementsAre(zel::Notify::Warning));
    }
    zelCore::shutdown();
}

TEST_F(FormatDeathTest, PrimitivesAreRegisteredOnceAndAddUpToTheElement) {
    EXPECT_DEATH(
        Format::registerFormatPrimitives<double>(zelData::getFormat("Real:64bit"), 1, 0),
        "zelVerify failed: `__zel_typeCallerTable.find\\( format \\) == __zel_typeCallerTable.end\\(\\)', "
        "Format: The format 'Real:64bit' have already been registered\\.");
    const zel::ref_ptr<Format> format = bare();
    EXPECT_DEATH(
        Format::registerFormatPrimitives<float>(format.get(), 3, 0),
        "zelVerify failed: `elementSize == format->getSize\\(\\)', Size mismatch, format bare is 8 bytes, "
        "packed element is 12 bytes");
    EXPECT_DEATH(
        Format::registerFormatPrimitives<float>(format.get(), 2, 2),
        "zelVerify failed: `padding < stride', Format: A format cannot be all padding, or contain more "
        "padding than total memory usage\\. stride: 2, padding: 2\\.");
}

TEST_F(FormatTest, TheDefaultValueIsMadeOnceAndHoldsAConstructedElement) {
    const Format* format = zelData::getFormat("Vec3:32bit");
    zelData::Value* value = format->getDefaultValue();
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(format->getDefaultValue(), value);
    EXPECT_EQ(value->getName(), zel::Name("default"));
    EXPECT_EQ(value->getFormat(), format);
    EXPECT_EQ(*static_cast<const zel::Vec3f*>(value->getData()), zel::Vec3f());
}

TEST_F(FormatTest, CleanupTakesFormatAndContentFromTheDefaultValue) {
    const zel::ref_ptr<Format> format(new FormatT<zel::String>("text"));
    const zel::ref_ptr<zelData::Value> value(format->getDefaultValue());
    EXPECT_EQ(*static_cast<const zel::String*>(value->getData()), "");
    format->cleanup();
    EXPECT_EQ(value->getFormat(), nullptr);
    EXPECT_EQ(value->getData(), nullptr);
    format->cleanup();
    zelData::Value* const fresh = format->getDefaultValue();
    EXPECT_NE(fresh, value.get());
    EXPECT_EQ(fresh->getFormat(), format.get());
    format->cleanup();
}

TEST(FormatStressTest, ThreadsGetTheSameDefaultValue) {
    const zel::ref_ptr<Format> format(new FormatT<double>("number"));
    std::array<zelData::Value*, 8> values{};
    std::vector<std::thread> threads;
    for (zelData::Value*& value : values)
        threads.emplace_back([&value, &format] { value = format->getDefaultValue(); });
    for (std::thread& thread : threads)
        thread.join();
    for (const zelData::Value* value : values)
        EXPECT_EQ(value, values[0]);
    format->cleanup();
}
