#include "Elements.h"

#include <zel/CpuDevice.h>
#include <zel/InitCallback.h>
#include <zel/Vec.h>
#include <zelCore/zelCore.h>
#include <zelData/ArrayFormat.h>
#include <zelData/FormatInitializer.h>
#include <zelData/FormatT.h>
#include <zelData/Type.h>
#include <zelData/TypeBinding.h>
#include <zelData/TypeManager.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/FirstLife.h>
#include <support/StreamCapture.h>
#include <tinyxml.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using testing::AllOf;
using testing::HasSubstr;
using zelData::Format;
using zelData::getFormat;
using zelData::getType;
using zelData::Type;

namespace {

/// What a static object found ahead of main and of zelCore::init().
std::string s_early;
ZEL_STATIC_INIT {
    if (const Format* format = getFormat("Vec3:32bit"))
        s_early = format->fullName();
}

/// The message of the exception that reading a format from the element throws.
std::string errorOf(const char* xml) {
    TiXmlDocument document;
    document.Parse(xml);
    try {
        static_cast<void>(getFormat(document.RootElement(), nullptr));
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "";
}

const Format* formatOf(const char* xml) {
    TiXmlDocument document;
    document.Parse(xml);
    return getFormat(document.RootElement(), nullptr);
}

int s_created = 0;
void createLateFormats() {
    ++s_created;
    Type* type = zelData::getOrCreateType("LateType");
    type->addFormat(new zelData::FormatT<int>("default"), true);
}

} // namespace

TEST(TypeTest, AFirstLookUpFromAStaticConstructorWorks) {
    EXPECT_EQ(s_early, "Vec3:32bit");
}

TEST(TypeTest, AFormatIsFoundByItsFullNameOrByItsType) {
    EXPECT_EQ(getFormat("Real")->fullName(), "Real:64bit");
    EXPECT_EQ(getFormat("Real:32bit")->getName(), zel::Name("32bit"));
    EXPECT_EQ(getFormat("Real:32bit"), getType("Real")->getFormat("32bit"));
}

TEST(TypeTest, UnknownNamesGiveNull) {
    EXPECT_EQ(getFormat("Real:128bit"), nullptr);
    EXPECT_EQ(getFormat("Rael:64bit"), nullptr);
    EXPECT_EQ(getFormat(""), nullptr);
    EXPECT_EQ(getFormat(":"), nullptr);
    EXPECT_EQ(getFormat("Real:64bit:"), nullptr);
    EXPECT_EQ(getType("real"), nullptr);
    EXPECT_EQ(getType(""), nullptr);
}

TEST(TypeTest, ArraysAreMadeOnDemandAndOnce) {
    const Format* format = getFormat("Array<Real:32bit>");
    const auto* array = dynamic_cast<const zelData::ArrayFormat*>(format);
    ASSERT_NE(array, nullptr);
    EXPECT_EQ(array->getElementFormat(), getFormat("Real:32bit"));
    EXPECT_EQ(getFormat("Array<Real:32bit>"), format);
    EXPECT_EQ(format->fullName(), "Array<Real:32bit>:Array");
    const auto* nested = dynamic_cast<const zelData::ArrayFormat*>(getFormat("Array<Array<Int>>"));
    ASSERT_NE(nested, nullptr);
    EXPECT_EQ(nested->getElementFormat(), getFormat("Array<Int>"));
}

TEST(TypeTest, TheFullNameOfAnArrayFindsIt) {
    for (const char* name : {"Array<Real>", "Array<Real:32bit>", "Array<Array<Int>>"}) {
        const Format* format = getFormat(name);
        EXPECT_EQ(getFormat(format->fullName()), format);
        EXPECT_EQ(getFormat("Array<" + format->fullName() + ">")->getSize(), format->getSize());
    }
    EXPECT_EQ(getFormat("Array<Real>:List"), nullptr);
    EXPECT_EQ(getFormat("Array<Real>:"), nullptr);
}

TEST(TypeTest, OtherContainersHaveNoFormatOfTheirOwn) {
    for (const char* name : {"Vector<Real>", "HashSet<Name>"}) {
        const Type* type = getType(name);
        ASSERT_NE(type, nullptr);
        EXPECT_EQ(type->getDefaultFormat(), nullptr);
        EXPECT_EQ(getFormat(name), nullptr);
        EXPECT_EQ(getType(name), type);
    }
}

TEST(TypeTest, TheClosingBracketIsNotRead) {
    const auto* array = dynamic_cast<const zelData::ArrayFormat*>(getFormat("Array<Real]"));
    ASSERT_NE(array, nullptr);
    EXPECT_EQ(array->getElementFormat(), getFormat("Real"));
    EXPECT_NE(getType("Vector<"), nullptr);
}

TEST(TypeTest, NamesThatAreNestedTooDeepNameNothing) {
    std::string name;
    for (int i = 0; i < 100'000; ++i)
        name += "Array<";
    EXPECT_EQ(getType(name), nullptr);
    EXPECT_EQ(getFormat(name), nullptr);
}

TEST(TypeDeathTest, UnknownContainersAbort) {
    EXPECT_DEATH(static_cast<void>(getType("Map<Real>")), "zelAbort: Unsupported container type Map\n");
    EXPECT_DEATH(static_cast<void>(getFormat("<")), "zelAbort: Unsupported container type \n");
    EXPECT_DEATH(static_cast<void>(getFormat("Array<Rael>")), "zelVerify failed: `elementFormat'");
}

TEST(TypeDeathTest, ASecondTypeOfANameAborts) {
    static_cast<void>(getType("Real"));
    EXPECT_DEATH(new Type("Real"), "zelVerify failed: .*, Type name 'Real' is not unique!");
}

TEST(TypeTest, IdsAreThePositionsInTheTable) {
    const auto& types = zelData::getTypes();
    for (zel::uint64 id = 0; id < types.size(); ++id) {
        EXPECT_EQ(getType(id), types[id].value.get());
        EXPECT_EQ(types[id].value->getId(), id);
        EXPECT_EQ(types[id].value->getName(), types[id].key);
    }
    EXPECT_EQ(getType(types.size()), nullptr);
    EXPECT_EQ(getType(~zel::uint64{0}), nullptr);
}

TEST(TypeTest, GetOrCreateTypeMakesAPlainType) {
    Type* type = zelData::getOrCreateType("PlainType");
    EXPECT_EQ(zelData::getOrCreateType("PlainType"), type);
    EXPECT_EQ(getType("PlainType"), type);
    EXPECT_EQ(type->getDefaultFormat(), nullptr);
    EXPECT_TRUE(type->getModel()->is(Type::ClassModel()));
    EXPECT_EQ(zelData::getOrCreateType("Real"), getType("Real"));
}

TEST(TypeTest, FormatsAreChildrenOfTheirType) {
    Type* type = zelData::getOrCreateType("WithFormats");
    const zel::ref_ptr<Format> first(new zelData::FormatT<int>("a"));
    type->addFormat(first.get(), false);
    EXPECT_EQ(type->getDefaultFormat(), nullptr);
    EXPECT_EQ(type->findObject("a"), first.get());
    EXPECT_EQ(first->getContext(), type);
    EXPECT_EQ(first->getType(), type);
    type->addFormat(first.get(), true);
    EXPECT_EQ(type->getNumObjects(), 1U);
    EXPECT_EQ(type->getDefaultFormat(), first.get());
    auto* const second = new zelData::FormatT<float>("a");
    type->addFormat(second, true);
    EXPECT_EQ(type->getFormat("a"), second);
    EXPECT_EQ(type->getDefaultFormat(), second);
    EXPECT_EQ(type->getFormats().size(), 1U);
    EXPECT_EQ(type->getFormat("b"), nullptr);
}

TEST(TypeTest, ThereIsOneGenericFormatForEachSize) {
    const Format* format = zelData::getGenericStructFormat(12);
    EXPECT_EQ(zelData::getGenericStructFormat(12), format);
    EXPECT_EQ(format->getName(), zel::Name("12 bytes"));
    EXPECT_EQ(format->fullName(), "GenericData:12 bytes");
    EXPECT_NE(zelData::getGenericStructFormat(13), format);
    EXPECT_EQ(getType("GenericData")->getDefaultFormat(), nullptr);
}

TEST(TypeTest, TheTableHasEachTypeWithItsDefault) {
    const auto fullNameOf = [](const char* name) { return std::string(getFormat(name)->fullName()); };
    for (const char* name : {"Int",        "UInt",         "Real",      "Vec2",
                             "Vec3",       "Vec4",         "Vec2i",     "Vec3i",
                             "Vec4i",      "Vec2u",        "Vec3u",     "Vec4u",
                             "Quat",       "Matrix3x3",    "Matrix4x4", "AffineMatrix4x4",
                             "Bound1",     "Bound2",       "Bound3",    "Bound1i",
                             "Bound2i",    "Bound3i",      "Bound1u",   "Bound2u",
                             "Bound3u",    "Line",         "Plane",     "Range6",
                             "IndexRange", "ObjectPointer"})
        EXPECT_EQ(fullNameOf(name), std::string(name) + ":64bit");
    for (const char* name : {"Auto",
                             "SPDMatrix3x3",
                             "Name",
                             "String",
                             "Uuid",
                             "Pointer",
                             "AtomicValue",
                             "SpinMutex",
                             "RangeJob",
                             "JobGroup",
                             "TaskJob",
                             "Job"})
        EXPECT_EQ(fullNameOf(name), std::string(name) + ":default");
    EXPECT_EQ(fullNameOf("Void"), "Void:void");
    EXPECT_EQ(fullNameOf("Bool"), "Bool:8bit");
}

TEST(TypeTest, ElementsAreAsLargeAsTold) {
    EXPECT_EQ(getFormat("Vec3:32bit")->getSize(), 16U);
    EXPECT_EQ(getFormat("Vec3:64bit")->getSize(), 32U);
    EXPECT_EQ(getFormat("Vec3i:32bit")->getSize(), 12U);
    EXPECT_EQ(getFormat("Real:ascii")->getSize(), sizeof(zel::String));
    EXPECT_EQ(getFormat("Uuid")->getSize(), 16U);
}

TEST(TypeTest, ReadsAFormatFromAnElement) {
    EXPECT_EQ(formatOf("<a type='Real'/>"), getFormat("Real:64bit"));
    EXPECT_EQ(formatOf("<a type='Real:32bit'/>"), getFormat("Real:32bit"));
    EXPECT_EQ(formatOf("<a type='Real' format='32bit'/>"), getFormat("Real:32bit"));
    EXPECT_EQ(formatOf("<a value='Vec3:32bit'/>"), getFormat("Vec3:32bit"));
    EXPECT_EQ(formatOf("<a type='Int' value='Vec3:32bit'/>"), getFormat("Int:64bit"));
    EXPECT_EQ(formatOf("<a type='Array&lt;Real:32bit>'/>"), getFormat("Array<Real:32bit>"));
    EXPECT_EQ(formatOf("<a type='Array&lt;Real:32bit>:Array'/>"), getFormat("Array<Real:32bit>"));
    EXPECT_EQ(formatOf("<a type='Array&lt;Real:32bit>' format='Array'/>"), getFormat("Array<Real:32bit>"));
    EXPECT_EQ(formatOf("<a type='Vector&lt;Real>'/>"), nullptr);
}

TEST(TypeTest, ADeviceChoosesTheFormatWhereNoneIsNamed) {
    const zel::ref_ptr<zel::CpuDevice> device(new zel::CpuDevice("device"));
    device->setTypeFormat("Real", "32bit");
    const auto read = [&device](const char* xml) {
        TiXmlDocument document;
        document.Parse(xml);
        return getFormat(document.RootElement(), device.get());
    };
    EXPECT_EQ(read("<a type='Real'/>"), getFormat("Real:32bit"));
    EXPECT_EQ(read("<a type='Real:64bit'/>"), getFormat("Real:64bit"));
    EXPECT_EQ(read("<a type='Real' format='64bit'/>"), getFormat("Real:64bit"));
    EXPECT_EQ(read("<a type='Vec3'/>"), getFormat("Vec3:64bit"));
}

TEST(TypeTest, BadElementsAreXmlErrors) {
    EXPECT_THAT(errorOf("<a name='x'/>"), HasSubstr("XML error: Must specify a type!. Error at row 1"));
    EXPECT_THAT(
        errorOf("<a type='Real:32bit' format='64bit'/>"),
        HasSubstr(
            "XML error: Can not have both type:format declaration and separate format attribute. Error"));
    EXPECT_THAT(errorOf("<a type='Rael'/>"),
                HasSubstr("XML error: No type named 'Rael' (did you mean 'Real'?). Error"));
    EXPECT_THAT(errorOf("<a type='Real:128bit'/>"),
                HasSubstr("XML error: No format named 'Real:128bit'. Error"));
    EXPECT_THAT(errorOf("<a type='Real' format='128bit'/>"),
                HasSubstr("XML error: No format named 'Real:128bit'. Error"));
    EXPECT_THAT(errorOf("<a type='Real' format=''/>"),
                HasSubstr("XML error: No format named 'Real:'. Error"));
    for (const char* name :
         {"Array<Rael>", "Map<Real>", "Array<", "<", "Array<Map<Real>>", "Array<Vector<Real>>"})
        EXPECT_THAT(errorOf(("\n<a type=\"" + std::string(name) + "\"/>").c_str()),
                    AllOf(HasSubstr("XML error: No type named '" + std::string(name) + "'"),
                          HasSubstr(". Error at row 2")));
    EXPECT_THAT(errorOf("<a type='Array&lt;Real>:List'/>"),
                HasSubstr("XML error: No format named 'Array<Real>:List'. Error"));
}

TEST(TypeTest, PrintsEachTypeFollowedByItsFormats) {
    std::string text;
    {
        const zelTest::StreamCapture out(std::cout);
        zelData::printAllTypesAndFormats();
        text = out.text();
    }
    EXPECT_THAT(text, HasSubstr("Bool\n  "));
    EXPECT_THAT(text, HasSubstr("\n  8bit\n"));
    size_t lines = 0;
    for (const auto& pair : zelData::getTypes())
        lines += 1 + pair.value->getFormats().size();
    EXPECT_EQ(static_cast<size_t>(std::count(text.begin(), text.end(), '\n')), lines);
}

TEST(TypeTest, AnInitialiserThatComesLateRunsAtOnce) {
    static_cast<void>(getType("Real"));
    s_created = 0;
    {
        const zelData::FormatInitializer late("LateType", &createLateFormats);
        EXPECT_EQ(s_created, 1);
        EXPECT_EQ(zelData::FormatInitializer::find("LateType"), &late);
        zelData::FormatInitializer::createFormats();
        EXPECT_EQ(s_created, 1);
    }
    EXPECT_EQ(zelData::FormatInitializer::find("LateType"), nullptr);
    EXPECT_EQ(getFormat("LateType")->fullName(), "LateType:default");
}

TEST(TypeTest, AnInitialiserThatComesLateAndThrowsLeavesNothing) {
    static_cast<void>(getType("Real"));
    const auto fail = [] { throw std::runtime_error("frail"); };
    EXPECT_THROW(zelData::FormatInitializer("FrailType", fail), std::runtime_error);
    EXPECT_EQ(zelData::FormatInitializer::find("FrailType"), nullptr);
}

namespace {

bool s_fails = false;

/// In a process of its own: what others have registered goes.
[[noreturn]] void tryAgain() {
    static_cast<void>(getType("Real"));
    const zelData::FormatInitializer frail("FrailType", [] {
        if (s_fails)
            throw std::runtime_error("frail");
        static_cast<void>(zelData::getOrCreateType("FrailType"));
    });
    zelData::FormatInitializer::removeFormats();
    s_fails = true;
    bool thrown = false;
    try {
        zelData::FormatInitializer::createFormats();
    } catch (const std::runtime_error&) {
        thrown = true;
    }
    const bool ended = !zelData::FormatInitializer::isCreatingFormats();
    s_fails = false;
    zelData::FormatInitializer::createFormats();
    std::_Exit(thrown && ended && zelData::getType("FrailType") != nullptr ? 0 : 1);
}

} // namespace

TEST(TypeDeathTest, AnInitialiserThatThrowsIsTriedAgain) {
    EXPECT_EXIT(tryAgain(), testing::ExitedWithCode(0), "");
}

TEST(TypeDeathTest, TwoInitialisersOfATypeAbort) {
    static_cast<void>(getType("Real"));
    EXPECT_DEATH(zelData::FormatInitializer("Real", &createLateFormats),
                 "Formats for the type 'Real' are already registered");
}

TEST(TypeManagerTest, StandsInFrontOfTheModelTreeAmongTheServices) {
    EXPECT_EQ(zelData::TypeManager::instance()->getPriority(), 2);
    EXPECT_THAT(zelData::TypeManager::instance()->getClassName(),
                HasSubstr("zelData::TypeManager::getClassName()"));
}

TEST(TypeManagerTest, ARegistryThatWasShutDownComesUpAfresh) {
    ZEL_FIRST_LIFE_ONLY();
    zelCore::init();
    Type* const before = getType("Real");
    EXPECT_TRUE(zelData::TypeManager::isInitialized());
    EXPECT_EQ(zelData::TypeBinding<double>::getType(), before);
    const Format* const format = getFormat("Vec3:32bit");
    zelCore::shutdown();
    EXPECT_FALSE(zelData::TypeManager::isInitialized());
    // Those who still hold a format may use it.
    EXPECT_EQ(format->fullName(), "Vec3:32bit");
    zel::Vec3f element(1, 2, 3);
    format->constructElement(&element);
    EXPECT_EQ(element, zel::Vec3f());

    zelCore::init();
    Type* const after = getType("Real");
    EXPECT_NE(after, before);
    EXPECT_EQ(zelData::TypeBinding<double>::getType(), after);
    EXPECT_EQ(zelData::getGenericStructFormat(12)->fullName(), "GenericData:12 bytes");
    zelCore::shutdown();
}

TEST(TypeBindingTest, BindsClassesToTypesByName) {
    using zelData::TypeBinding;
    EXPECT_EQ(TypeBinding<bool>::getType(), getType("Bool"));
    EXPECT_EQ(TypeBinding<signed char>::getType(), getType("Int"));
    EXPECT_EQ(TypeBinding<long>::getType(), getType("Int"));
    EXPECT_EQ(TypeBinding<unsigned long>::getType(), getType("UInt"));
    EXPECT_EQ(TypeBinding<float>::getType(), getType("Real"));
    EXPECT_EQ(TypeBinding<zel::Vec3d>::getType(), getType("Vec3"));
    EXPECT_EQ(TypeBinding<zel::Vec4T<int>>::getType(), getType("Vec4i"));
    EXPECT_EQ(TypeBinding<zel::Vec2T<unsigned char>>::getType(), getType("Vec2u"));
    EXPECT_EQ(TypeBinding<zel::BoundT<zel::Vec3T<unsigned>>>::getType(), getType("Bound3u"));
    EXPECT_EQ(TypeBinding<zel::BoundT<float>>::getType(), getType("Bound1"));
    EXPECT_EQ(TypeBinding<zel::SPDMatrix3x3>::getType(), getType("SPDMatrix3x3"));
    EXPECT_EQ(TypeBinding<zel::AffineMatrix4x4T<float>>::getType(), getType("AffineMatrix4x4"));
    EXPECT_EQ(TypeBinding<zel::IndexRange>::getType(), getType("IndexRange"));
    EXPECT_EQ(TypeBinding<zel::String>::getType(), getType("String"));
    EXPECT_EQ(TypeBinding<void*>::getType(), getType("Pointer"));
    EXPECT_EQ(TypeBinding<zel::Object*>::getType(), getType("ObjectPointer"));
    EXPECT_EQ(TypeBinding<zel::RangeJob>::getType(), getType("RangeJob"));
}

namespace {
struct Unregistered {};
} // namespace
template <>
struct zelData::TypeNameOf<Unregistered> {
    static constexpr const char* name = "Unregistered";
};

TEST(TypeBindingDeathTest, ATypeThatDoesNotExistAborts) {
    EXPECT_DEATH(static_cast<void>(zelData::TypeBinding<Unregistered>::getType()),
                 "There is no type 'Unregistered'");
}

TEST(TypeStressTest, LookUpsFromManyThreadsAgree) {
    std::vector<std::thread> threads;
    std::vector<const Format*> found(8);
    for (size_t i = 0; i < found.size(); ++i)
        threads.emplace_back([i, &found] {
            for (int k = 0; k < 200; ++k) {
                const zel::String name = zel::String::format("Array<Vec%d:32bit>", 2 + k % 3);
                found[i] = getFormat(name);
                static_cast<void>(zelData::TypeBinding<zel::Vec4f>::getType());
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    for (const Format* format : found)
        EXPECT_EQ(format, getFormat("Array<Vec3:32bit>"));
}

TEST(TypeStressTest, FormatsAreLookedUpWhileOthersAreAdded) {
    constexpr int numSizes = 40;
    static_cast<void>(zelData::getGenericStructFormat(1));
    std::vector<std::thread> threads;
    threads.emplace_back([] {
        for (zel::uint64 size = 1; size < numSizes; ++size)
            static_cast<void>(zelData::getGenericStructFormat(1000 + size));
    });
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([] {
            for (int k = 0; k < 100 * numSizes; ++k)
                EXPECT_NE(getFormat("GenericData:1 bytes"), nullptr);
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_NE(getFormat("GenericData:1001 bytes"), nullptr);
}

TEST(TypeDeathTest, TakesAThousandSizesOfOpaqueElementsAndRefusesTheNextWithAnException) {
    const auto useAll = [] {
        zel::uint64 size = 100'000;
        try {
            for (;; ++size)
                static_cast<void>(zelData::getGenericStructFormat(size));
        } catch (const std::runtime_error& error) {
            std::cerr << (size - 100'000 > 1000 ? "enough: " : "too few: ") << error.what() << std::endl;
        }
        // Those that are there are given out as before.
        std::exit(zelData::getGenericStructFormat(100'000)->getSize() == 100'000 ? 0 : 1);
    };
    EXPECT_EXIT(useAll(),
                testing::ExitedWithCode(0),
                "enough: No generic format of 1[0-9]+ bytes: there are 1024 of other sizes");
}
