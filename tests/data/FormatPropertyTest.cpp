// What holds for every format: the tests walk the registry, so that a new format is tested by being
// registered.

#include "Elements.h"

#include <zel/Name.h>
#include <zelData/Format.h>
#include <zelData/Type.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <typeinfo>
#include <vector>

using zelData::CallbackList;
using zelData::Format;
using zelData::getTransformer;
using zelData::TransformFunction;
using zelTest::Elements;

namespace {

/// The numbers that elements consist of, as far as a test needs them.
struct NumbersOfFormat {
    bool known = false;
    size_t size = 0;   ///< of a number
    size_t stride = 0; ///< numbers in an element
    size_t padding = 0;
    bool isReal = false;
    bool isSigned = false;
    bool isBool = false;
};

/// Formats whose type can be looked at, in the registry's order.
std::vector<const Format*> allFormats() {
    std::vector<const Format*> formats;
    for (const auto& pair : zelData::getTypes())
        for (const auto& entry : pair.value->getFormats())
            formats.push_back(entry.value.get());
    return formats;
}

bool hasPrimitives(const Format* format) {
    // Asking for the primitives of a format without any would be a warning.
    return format->getSwapFunction() != nullptr;
}

NumbersOfFormat numbersOf(const Format* format) {
    NumbersOfFormat numbers;
    if (!hasPrimitives(format))
        return numbers;
    const auto list = CallbackList::forAll([&numbers]<typename T>(unsigned int stride, unsigned int padding) {
        numbers = {true,
                   sizeof(T),
                   stride,
                   padding,
                   std::is_floating_point_v<T>,
                   std::is_signed_v<T>,
                   std::is_same_v<T, bool>};
    });
    EXPECT_TRUE(Format::callFormatPrimitive(format, list)) << format->fullName();
    return numbers;
}

/// Whether a number of an element is padding. Those of eight with padding are two padded vectors; planes are
/// the only ones of five, a padded vector and a number.
bool isPadding(unsigned int k, unsigned int stride, unsigned int padding) {
    return k >= stride - padding || (k == 3 && (stride == 5 || (stride == 8 && padding == 1)));
}

/// Calls visit with each number of the elements but the padding, in its own type.
template <typename Visit>
void forEachNumber(Elements& elements, Visit visit) {
    const auto list = CallbackList::forAll([&]<typename T>(unsigned int stride, unsigned int padding) {
        for (zel::uint64 i = 0; i < elements.count(); ++i)
            for (unsigned int k = 0; k < stride; ++k)
                if (!isPadding(k, stride, padding))
                    visit(elements.as<T>()[i * stride + k]);
    });
    ASSERT_TRUE(Format::callFormatPrimitive(elements.format(), list));
}

std::string typeOf(const Format* format) {
    return format->getType()->getName().str();
}
std::string nameOf(const Format* format) {
    return format->getName().str();
}
bool isText(const Format* format) {
    return nameOf(format) == "ascii" || nameOf(format) == "Octave";
}
bool holdsStrings(const Format* format) {
    return static_cast<const zel::Model*>(format)->getImplementationName() ==
           zel::Name(typeid(zel::String).name());
}
bool holdsNames(const Format* format) {
    return static_cast<const zel::Model*>(format)->getImplementationName() ==
           zel::Name(typeid(zel::Name).name());
}

/// Gives the elements contents that tell them apart, where the test knows how.
/// @return whether it knew
bool fillDistinct(Elements& elements) {
    if (hasPrimitives(elements.format())) {
        int next = 1;
        forEachNumber(elements, [&next]<typename T>(T& number) { number = static_cast<T>(next++ % 100); });
        return true;
    }
    for (zel::uint64 i = 0; i < elements.count(); ++i) {
        if (holdsStrings(elements.format()))
            elements.as<zel::String>()[i] = "a text that lies on the heap, number " + std::to_string(i);
        else if (holdsNames(elements.format()))
            elements.as<zel::Name>()[i] = zel::Name("name " + std::to_string(i));
        else
            return false;
    }
    return true;
}

/// Whether two elements of a format have the same content; true where the test can not tell.
bool equal(const Format* format, const void* a, const void* b) {
    if (holdsStrings(format))
        return *static_cast<const zel::String*>(a) == *static_cast<const zel::String*>(b);
    if (holdsNames(format))
        return *static_cast<const zel::Name*>(a) == *static_cast<const zel::Name*>(b);
    return !hasPrimitives(format) || std::memcmp(a, b, format->getSize()) == 0;
}

void expectElements(Elements& elements,
                    Elements& source,
                    const std::vector<zel::uint32>& from,
                    const char* operation) {
    for (zel::uint32 i = 0; i < from.size(); ++i)
        EXPECT_TRUE(equal(elements.format(), elements.at(i), source.at(from[i])))
            << operation << " of " << elements.format()->fullName() << ", element " << i;
}

/// Raw memory for elements that a test constructs itself.
class RawElements {
public:
    RawElements(const Format* format, zel::uint64 count)
        : m_format(format), m_bytes(format->getSize() * count + 1, '\xA5') {}
    [[nodiscard]] void* at(zel::uint64 i) { return m_bytes.data() + i * m_format->getSize(); }

private:
    const Format* m_format;
    std::vector<char> m_bytes; // from operator new: aligned for every element
};

const std::set<std::string>& scalarSources() {
    static const std::set<std::string> formats{
        "Int:32bit", "Int:64bit", "UInt:32bit", "UInt:64bit", "Real:32bit", "Real:64bit"};
    return formats;
}

bool isVector(const std::string& type) {
    return type.size() >= 4 && type.starts_with("Vec") && type[3] >= '2' && type[3] <= '4';
}

/// The scalars that convert into each other, one way round.
bool isScalarPair(const Format* a, const Format* b) {
    const std::string ta = typeOf(a);
    const std::string tb = typeOf(b);
    const bool wide = nameOf(b) == "32bit" || nameOf(b) == "64bit";
    if (isText(a) || isText(b))
        return false;
    if (ta == "Bool")
        return (tb == "Int" || tb == "UInt") && wide;
    if (ta == "Real")
        return (tb == "Int" || tb == "UInt") && wide;
    return ta == "Int" && tb == "UInt" && nameOf(a) == nameOf(b);
}

/// The ways from the general handle of an entity to the handles of its kinds.
bool isHandlePair(const Format* target, const Format* source) {
    if (source->fullName() == "EntityInstance:default")
        return typeOf(target).ends_with("Instance") && nameOf(target) == "default";
    return source->fullName() == "EntityPtr:default" && target->fullName() == "EntityPtr:IndexOnly";
}

/// Whether there must be a way from the source to the target.
bool mustExist(const Format* target, const Format* source) {
    if (target == source || isHandlePair(target, source))
        return true;
    const std::string tt = typeOf(target);
    const std::string ts = typeOf(source);
    if (tt == ts) {
        if (nameOf(target) == "Octave")
            return !isText(source);
        if (nameOf(source) == "Octave")
            return false;
        if (isText(target) != isText(source))
            return true;
        return numbersOf(target).known && numbersOf(source).known;
    }
    if (isScalarPair(target, source) || isScalarPair(source, target))
        return true;
    if (isVector(tt) && !isText(target))
        return scalarSources().contains(ts + ":" + nameOf(source));
    return (target->fullName() == "Name:default" && source->fullName() == "String:default") ||
           (target->fullName() == "String:default" && source->fullName() == "Name:default");
}

/// The conversion rule, by another road than the library's: exact in long double.
template <typename Target, typename Source>
Target expectedNumber(Source value) {
    if constexpr (std::is_same_v<Target, bool>)
        return value != Source{};
    else if constexpr (std::is_integral_v<Target> && std::is_floating_point_v<Source>) {
        if (std::isnan(value))
            return 0;
        const long double truncated = std::trunc(static_cast<long double>(value));
        if (truncated <= static_cast<long double>(std::numeric_limits<Target>::min()))
            return std::numeric_limits<Target>::min();
        if (truncated >= static_cast<long double>(std::numeric_limits<Target>::max()))
            return std::numeric_limits<Target>::max();
        return static_cast<Target>(truncated);
    } else if constexpr (std::is_integral_v<Target>) {
        // Of the bits that fit.
        Target result{};
        const auto wide = static_cast<zel::int64>(value);
        std::memcpy(&result, &wide, sizeof(result));
        return result;
    } else {
        return static_cast<Target>(value);
    }
}

template <typename T>
bool sameNumber(T a, T b) {
    if constexpr (std::is_floating_point_v<T>)
        return (std::isnan(a) && std::isnan(b)) || (a == b && std::signbit(a) == std::signbit(b));
    else
        return a == b;
}

/// A number of any magnitude, often at the edge of a type.
template <typename T>
T wildNumber(std::mt19937_64& random) {
    const zel::uint64 bits = random();
    if constexpr (std::is_same_v<T, bool>) {
        return (bits & 1U) != 0;
    } else if constexpr (std::is_integral_v<T>) {
        constexpr T Edges[] = {
            0, 1, static_cast<T>(-1), std::numeric_limits<T>::min(), std::numeric_limits<T>::max()};
        return bits % 4 == 0 ? Edges[bits / 4 % 5] : static_cast<T>(bits >> 3U);
    } else {
        using L = std::numeric_limits<T>;
        const T edges[] = {T{0},
                           -T{0},
                           L::max(),
                           L::lowest(),
                           L::min(),
                           L::denorm_min(),
                           L::infinity(),
                           -L::infinity(),
                           L::quiet_NaN(),
                           T(2147483648.0),
                           T(-2147483648.0),
                           T(4294967296.0),
                           T(9223372036854775808.0),
                           T(-9223372036854775808.0),
                           T(18446744073709551616.0),
                           T(-1),
                           T(0.5),
                           T(-0.5),
                           T(127.5),
                           T(255.9)};
        if (bits % 3 == 0)
            return edges[bits / 3 % std::size(edges)];
        if (bits % 3 == 1)
            return std::uniform_real_distribution<T>(-1000, 1000)(random);
        T value{};
        std::memcpy(&value, &bits, sizeof(value));
        return value;
    }
}

void fillWild(Elements& elements, std::mt19937_64& random) {
    forEachNumber(elements, [&random]<typename T>(T& number) { number = wildNumber<T>(random); });
}

/// The elements' numbers without the padding, through a callback for each type of number.
template <typename Visit>
void withNumbers(const Elements& elements, Visit visit) {
    const auto list = CallbackList::forAll([&]<typename T>(unsigned int stride, unsigned int padding) {
        std::vector<T> numbers;
        for (zel::uint64 i = 0; i < elements.count(); ++i)
            for (unsigned int k = 0; k < stride - padding; ++k)
                numbers.push_back(elements.as<T>()[i * stride + k]);
        // Passed on as a pointer: there is no reference to an element of a vector of bool.
        const std::unique_ptr<T[]> copy(new T[numbers.size()]);
        std::copy(numbers.begin(), numbers.end(), copy.get());
        visit(copy.get(), numbers.size());
    });
    ASSERT_TRUE(Format::callFormatPrimitive(elements.format(), list));
}

/// Every format that its type's text format can show.
std::vector<const Format*> formatsWithText() {
    std::vector<const Format*> formats;
    for (const Format* format : allFormats()) {
        const Format* ascii = format->getType()->getFormat("ascii");
        if (ascii != nullptr && !isText(format) && getTransformer(ascii, format) != nullptr)
            formats.push_back(format);
    }
    return formats;
}

std::vector<std::string> textsOf(const Elements& elements) {
    Elements texts(elements.format()->getType()->getFormat("ascii"), elements.count());
    elements.transformTo(texts);
    return {texts.as<zel::String>(), texts.as<zel::String>() + texts.count()};
}

} // namespace

TEST(FormatPropertyTest, TheRegistryHoldsTheWholeFamily) {
    EXPECT_GE(allFormats().size(), 120U);
}

TEST(FormatPropertyTest, EveryFormatBelongsToTheTypeThatHoldsIt) {
    for (const Format* format : allFormats()) {
        EXPECT_EQ(format->getType()->getFormat(format->getName()), format);
        EXPECT_EQ(zelData::getFormat(format->fullName()), format) << format->fullName();
    }
}

TEST(FormatPropertyTest, TheWayToItselfCopies) {
    for (const Format* format : allFormats()) {
        const TransformFunction copy = getTransformer(format, format);
        ASSERT_NE(copy, nullptr) << format->fullName();
        Elements source(format, 3);
        Elements target(format, 3);
        fillDistinct(source);
        copy(target.data(), source.data(), 3);
        expectElements(target, source, {0, 1, 2}, "self transformer");
    }
}

TEST(FormatPropertyTest, OperationsMoveContentsAsTold) {
    for (const Format* format : allFormats()) {
        Elements source(format, 4);
        Elements reference(format, 4);
        fillDistinct(source);
        fillDistinct(reference);

        Elements target(format, 4);
        format->copyElements(target.data(), source.data(), 4);
        expectElements(target, reference, {0, 1, 2, 3}, "copyElements");
        format->copyElement(target.at(1), source.at(3));
        expectElements(target, reference, {0, 3, 2, 3}, "copyElement");
        const std::vector<zel::uint32> permutation{3, 1, 0, 2};
        format->permuteElements(target.data(), source.data(), permutation.data(), 4);
        expectElements(target, reference, permutation, "permuteElements");
        format->swapElements(target.at(0), target.at(3));
        expectElements(target, reference, {2, 1, 0, 3}, "swapElements");

        RawElements raw(format, 3);
        format->initializeElement(raw.at(0), reference.at(2));
        format->initializeElements(raw.at(1), reference.at(1), 2);
        EXPECT_TRUE(equal(format, raw.at(0), reference.at(2)))
            << "initializeElement of " << format->fullName();
        EXPECT_TRUE(equal(format, raw.at(2), reference.at(1)))
            << "initializeElements of " << format->fullName();
        format->destroyElement(raw.at(0));
        format->destroyElements(raw.at(1), 2);

        format->moveElement(target.at(0), source.at(1));
        format->moveElements(target.at(1), source.at(2), 2);
        expectElements(target, reference, {1, 2, 3, 3}, "moveElement");
    }
}

TEST(FormatPropertyTest, ConstructedElementsAreAllAlike) {
    for (const Format* format : allFormats()) {
        RawElements raw(format, 3);
        format->constructElement(raw.at(0));
        format->constructElements(raw.at(1), 2);
        EXPECT_TRUE(equal(format, raw.at(0), raw.at(1))) << format->fullName();
        EXPECT_TRUE(equal(format, raw.at(0), raw.at(2))) << format->fullName();
        format->destroyElements(raw.at(0), 3);
    }
}

TEST(FormatPropertyTest, ZeroElementsAreNotLookedAt) {
    for (const Format* format : allFormats()) {
        format->initializeElements(nullptr, nullptr, 0);
        format->constructElements(nullptr, 0);
        format->destroyElements(nullptr, 0);
        format->copyElements(nullptr, nullptr, 0);
        format->moveElements(nullptr, nullptr, 0);
        format->permuteElements(nullptr, nullptr, nullptr, 0);
        for (const Format* target : allFormats())
            if (const TransformFunction function = getTransformer(target, format))
                function(nullptr, nullptr, 0);
    }
}

TEST(FormatPropertyTest, PrimitivesFillTheElementAndKeepItsPaddingZero) {
    for (const Format* format : allFormats()) {
        const NumbersOfFormat numbers = numbersOf(format);
        if (!numbers.known)
            continue;
        EXPECT_EQ(numbers.size * numbers.stride, format->getSize()) << format->fullName();
        EXPECT_LT(numbers.padding, numbers.stride) << format->fullName();
        const std::string bits = std::to_string(8 * numbers.size) + "bit";
        EXPECT_TRUE(nameOf(format) == bits || nameOf(format) == "default") << format->fullName();
    }
}

TEST(FormatPropertyTest, SwappingReversesEachNumberAndTwiceIsNothing) {
    std::mt19937_64 random(1);
    for (const Format* format : allFormats()) {
        const NumbersOfFormat numbers = numbersOf(format);
        if (!numbers.known)
            continue;
        Elements source(format, 5);
        fillWild(source, random);
        Elements swapped(format, 5);
        format->swapByteOrder(swapped.data(), source.data(), 5);
        std::vector<char> expected(source.as<char>(), source.as<char>() + source.numBytes());
        for (size_t i = 0; i < expected.size(); i += numbers.size)
            std::reverse(expected.begin() + static_cast<std::ptrdiff_t>(i),
                         expected.begin() + static_cast<std::ptrdiff_t>(i + numbers.size));
        EXPECT_EQ(std::memcmp(swapped.data(), expected.data(), expected.size()), 0) << format->fullName();
        format->swapByteOrder(swapped.data(), swapped.data(), 5);
        EXPECT_TRUE(swapped.sameBytes(source)) << format->fullName();
    }
}

TEST(FormatPropertyTest, TransformersExistWhereTheyMustAndNowhereElse) {
    for (const Format* source : allFormats())
        for (const Format* target : allFormats())
            EXPECT_EQ(getTransformer(target, source) != nullptr, mustExist(target, source))
                << source->fullName() << " to " << target->fullName();
}

TEST(FormatPropertyTest, NumbersConvertOneByOne) {
    std::mt19937_64 random(2);
    size_t pairs = 0;
    for (const Format* source : allFormats()) {
        if (!numbersOf(source).known)
            continue;
        for (const Format* target : allFormats()) {
            const TransformFunction function = getTransformer(target, source);
            if (function == nullptr || !numbersOf(target).known || target == source)
                continue;
            ++pairs;
            const NumbersOfFormat to = numbersOf(target);
            const NumbersOfFormat from = numbersOf(source);
            const bool widens = from.stride == 1 && to.stride > 1;
            Elements in(source, 100);
            fillWild(in, random);
            Elements out(target, 100);
            in.transformTo(out);
            size_t wrong = 0;
            withNumbers(in, [&]<typename S>(const S* sources, size_t numSources) {
                withNumbers(out, [&]<typename T>(const T* targets, size_t numTargets) {
                    const size_t each = widens ? to.stride - to.padding : 1;
                    ASSERT_EQ(numTargets, numSources * each);
                    for (size_t i = 0; i < numTargets; ++i)
                        wrong += sameNumber(targets[i], expectedNumber<T>(sources[i / each])) ? 0U : 1U;
                });
            });
            EXPECT_EQ(wrong, 0U) << source->fullName() << " to " << target->fullName();
            // What pads an element stays zero.
            for (zel::uint64 i = 0; i < out.count(); ++i)
                for (size_t k = 0; k < to.padding * to.size; ++k)
                    EXPECT_EQ(static_cast<const char*>(out.at(i))[target->getSize() - 1 - k], 0)
                        << target->fullName();
        }
    }
    EXPECT_GT(pairs, 250U);
}

TEST(FormatPropertyTest, WhatATextShowsIsReadBack) {
    for (const Format* format : formatsWithText()) {
        if (!fillDistinct(*std::make_unique<Elements>(format, 1)))
            continue; // pointers
        Elements first(format, 7);
        fillDistinct(first);
        // Through the text once, so that matrices and tensors have the form that their class demands.
        Elements texts(format->getType()->getFormat("ascii"), 7);
        first.transformTo(texts);
        Elements second(format, 7);
        texts.transformTo(second);
        Elements again(format->getType()->getFormat("ascii"), 7);
        second.transformTo(again);
        Elements third(format, 7);
        again.transformTo(third);
        for (zel::uint64 i = 0; i < 7; ++i)
            EXPECT_TRUE(equal(format, second.at(i), third.at(i))) << format->fullName();
        const std::string type = typeOf(format);
        if (type == "AffineMatrix4x4" || type == "SPDMatrix3x3")
            continue;
        for (zel::uint64 i = 0; i < 7; ++i)
            EXPECT_TRUE(equal(format, first.at(i), second.at(i)))
                << format->fullName() << " '" << textsOf(first)[i] << "'";
    }
}

TEST(FormatPropertyTest, TextsOfWildNumbersAreWrittenAndRead) {
    std::mt19937_64 random(3);
    for (const Format* format : formatsWithText()) {
        if (!numbersOf(format).known)
            continue;
        Elements elements(format, 200);
        fillWild(elements, random);
        Elements texts(format->getType()->getFormat("ascii"), 200);
        elements.transformTo(texts);
        for (zel::uint64 i = 0; i < texts.count(); ++i)
            EXPECT_FALSE(texts.as<zel::String>()[i].empty()) << format->fullName();
        Elements back(format, 200);
        texts.transformTo(back);
        const NumbersOfFormat numbers = numbersOf(format);
        const std::string type = typeOf(format);
        if (numbers.isReal || type.starts_with("Bound"))
            continue; // six digits do not hold a real
        EXPECT_TRUE(back.sameBytes(elements)) << format->fullName();
    }
}

TEST(FormatPropertyTest, ReadersStayWithinAnyText) {
    const std::vector<std::string> texts{"",
                                         " ",
                                         "-",
                                         "+",
                                         ".",
                                         ",",
                                         "->",
                                         "-1",
                                         "1,",
                                         "1,2",
                                         "1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17",
                                         "nan",
                                         "-inf",
                                         "1e999,-1e999",
                                         "0x",
                                         "0x1p",
                                         std::string(10'000, '1'),
                                         std::string(10'000, ','),
                                         std::string("1\0,2", 4),
                                         "1->",
                                         "1-",
                                         "InvalidIndex",
                                         "PI",
                                         "nullptr",
                                         "\xFF\xFE"};
    for (const Format* format : formatsWithText()) {
        if (typeOf(format) == "Bool" || !numbersOf(format).known)
            continue;
        for (const std::string& text : texts) {
            // Exactly as long as its content, so that a sanitizer sees a step beyond.
            Elements source(format->getType()->getFormat("ascii"), 1);
            source.as<zel::String>()->assign(text);
            source.as<zel::String>()->shrink_to_fit();
            Elements target(format, 1);
            source.transformTo(target);
            if (text.empty() && typeOf(format) != "AffineMatrix4x4") {
                Elements zero(format, 1);
                forEachNumber(zero, []<typename T>(T& number) { number = T{}; });
                EXPECT_TRUE(target.sameBytes(zero)) << format->fullName();
            }
        }
    }
}
