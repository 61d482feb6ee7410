#include "data/FormatLookup.h"
#include "data/RealText.h"

#include <zelData/Format.h>
#include <zelData/FormatPrimitives.h>
#include <zelData/PlainElements.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

namespace zelData {

using zel::uint32;
using zel::uint64;
using zel::uint8;
using PlainNode = PlainFrame::Node;

struct PlainElements::Numbers {
    uint32 count = 0; // without padding
    uint64 size = 0;  // of each
    double (*toDouble)(const uint8*) = nullptr;
    std::string (*toText)(const uint8*) = nullptr;
};

namespace {

/// A bool of a file may be any byte.
template <typename T>
using Stored = std::conditional_t<std::is_same_v<T, bool>, uint8, T>;

template <typename T>
Stored<T> readNumber(const uint8* bytes) {
    Stored<T> value;
    std::memcpy(&value, bytes, sizeof(value));
    return value;
}

template <typename T>
double toDouble(const uint8* bytes) {
    return static_cast<double>(readNumber<T>(bytes));
}

template <typename T>
std::string toText(const uint8* bytes) {
    const Stored<T> value = readNumber<T>(bytes);
    if constexpr (std::is_same_v<T, bool>)
        return value == 0 ? "false" : "true";
    else if constexpr (sizeof(T) == 1)
        return std::to_string(static_cast<int>(value));
    else {
        std::array<char, 32> text{};
        return {text.data(), toChars(text.data(), text.data() + text.size(), value).ptr};
    }
}

/// Of all that the arrays in a node are made of.
// NOLINTNEXTLINE(misc-no-recursion): arrays lie as deep as nodes
uint64 countElements(const PlainNode& node) {
    uint64 count = 0;
    for (const PlainNode& part : node.children)
        count += part.numElements + countElements(part);
    return count;
}

/// A part with elements of the size.
const PlainNode* findPart(const PlainNode& node, const char* name, uint64 elementSize) {
    const PlainNode* part = node.find(name);
    const bool fits = part != nullptr && part->type == PlainFrame::Type::BufferType && part->data &&
                      part->elementSize() == elementSize && part->numElements == node.numElements;
    return fits ? part : nullptr;
}

} // namespace

PlainElements::PlainElements(const PlainNode& node) : m_node(node) {
    if (node.type == PlainFrame::Type::CustomBufferType) {
        m_range = findPart(node, "range", 2 * sizeof(uint32));
        m_pool = node.find("characters");
        if (m_pool == nullptr)
            m_pool = node.find("elements");
        m_ids = findPart(node, "id", sizeof(uint64));
        m_storages = findPart(node, "storage", sizeof(uint64));
        return;
    }
    if (node.hasChildren() || !node.data)
        return;
    const Format* format = findFormat(node.format.c_str());
    if (format == nullptr || !format->hasPlainElements() || format->getSize() != node.elementSize() ||
        std::string_view(node.format.c_str()).starts_with("AtomicValue"))
        return;
    auto numbers = std::make_unique<Numbers>();
    const auto list = CallbackList::forAll([&numbers]<typename T>(unsigned int stride, unsigned int padding) {
        *numbers = {stride - padding, sizeof(T), &toDouble<T>, &toText<T>};
    });
    if (Format::callFormatPrimitive(format, list))
        m_numbers = std::move(numbers);
}

PlainElements::~PlainElements() = default;

uint64 PlainElements::size() const {
    const bool isBuffer = !m_node.hasChildren() || m_node.type == PlainFrame::Type::CustomBufferType;
    return isBuffer ? m_node.numElements : 0;
}

bool PlainElements::isKnown() const {
    return m_numbers != nullptr || m_range != nullptr || (m_ids != nullptr && m_storages != nullptr);
}

uint32 PlainElements::numNumbers() const {
    return m_numbers ? m_numbers->count : 0;
}

const uint8* PlainElements::element(uint64 i) const {
    return m_node.bytes() + i * m_node.elementSize();
}

double PlainElements::number(uint64 i, uint32 k) const {
    return m_numbers->toDouble(element(i) + k * m_numbers->size);
}

bool PlainElements::rangeOf(uint64 i, uint64& begin, uint64& end) const {
    std::array<uint32, 2> range{};
    std::memcpy(range.data(), m_range->bytes() + i * sizeof(range), sizeof(range));
    begin = range[0];
    end = range[1];
    return begin <= end && (begin == end || (m_pool != nullptr && end <= PlainElements(*m_pool).size()));
}

zel::String PlainElements::bytesOf(uint64 i) const {
    constexpr uint64 most = 32;
    constexpr std::string_view digits = "0123456789abcdef";
    if (m_node.hasChildren() || !m_node.data)
        return "?";
    zel::String text = "0x";
    for (uint64 k = 0; k < std::min(most, m_node.elementSize()); ++k) {
        const uint8 byte = element(i)[k];
        text += digits[byte / 16];
        text += digits[byte % 16];
    }
    return m_node.elementSize() > most ? text + "..." : text;
}

zel::String PlainElements::text(uint64 i) const {
    uint64 maxElements = m_range == nullptr ? 0 : countElements(m_node);
    return text(i, maxElements);
}

// Ranges that overlap at each depth would make more text than there is room for.
// NOLINTNEXTLINE(misc-no-recursion): arrays lie as deep as nodes
zel::String PlainElements::text(uint64 i, uint64& maxElements) const {
    if (m_range != nullptr) {
        uint64 begin = 0;
        uint64 end = 0;
        if (!rangeOf(i, begin, end))
            return "?";
        const bool isText = m_pool != nullptr && std::string_view(m_pool->name.c_str()) == "characters";
        if (isText && m_pool->data && m_pool->elementSize() == 1) {
            if (end - begin > maxElements)
                return "...";
            maxElements -= end - begin;
            return {reinterpret_cast<const char*>(m_pool->bytes()) + begin, end - begin};
        }
        if (m_pool == nullptr || isText)
            return begin == end ? zel::String() : zel::String("?");
        const PlainElements pool(*m_pool);
        zel::String text = "[";
        for (uint64 k = begin; k < end; ++k) {
            text += k == begin ? "" : ", ";
            if (maxElements == 0)
                return text + "...]";
            --maxElements;
            text += pool.text(k, maxElements);
        }
        return text + "]";
    }
    if (m_ids != nullptr && m_storages != nullptr) {
        const auto numberOf = [i](const PlainNode* part) {
            return std::to_string(readNumber<unsigned long>(part->bytes() + i * sizeof(uint64)));
        };
        return numberOf(m_ids) + "@" + numberOf(m_storages);
    }
    if (!m_numbers)
        return bytesOf(i);
    zel::String text;
    for (uint32 k = 0; k < m_numbers->count; ++k)
        text += (k == 0 ? "" : ", ") + m_numbers->toText(element(i) + k * m_numbers->size);
    return text;
}

zel::String PlainElements::text(uint64 i, uint32 k) const {
    return m_numbers ? zel::String(m_numbers->toText(element(i) + k * m_numbers->size)) : text(i);
}

bool PlainElements::differs(uint64 i, const PlainElements& other, double tolerance) const {
    if (m_node.hasChildren() || !m_node.data || !other.m_node.data)
        return text(i) != other.text(i);
    const uint64 size = m_node.elementSize();
    if (size == other.m_node.elementSize() && std::memcmp(element(i), other.element(i), size) == 0)
        return false;
    if (tolerance == 0 || !m_numbers || !other.m_numbers || m_numbers->count != other.m_numbers->count)
        return true;
    for (uint32 k = 0; k < m_numbers->count; ++k) {
        const double a = number(i, k);
        const double b = other.number(i, k);
        if (!(std::abs(a - b) <= tolerance) && a != b && !(std::isnan(a) && std::isnan(b)))
            return true;
    }
    return false;
}

} // namespace zelData
