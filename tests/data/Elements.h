#pragma once

#include <zel/String.h>
#include <zelData/Format.h>
#include <zelData/Type.h>

#include <cstddef>
#include <cstring>
#include <new>
#include <string>

namespace zelTest {

/// Constructed elements of a format.
class Elements {
public:
    Elements(const zelData::Format* format, zel::uint64 count)
        : m_format(format), m_count(count), m_data(allocate(format, count)) {
        m_format->constructElements(m_data, m_count);
    }
    Elements(const char* format, zel::uint64 count) : Elements(zelData::getFormat(format), count) {}
    Elements(const Elements&) = delete;
    Elements& operator=(const Elements&) = delete;
    ~Elements() {
        m_format->destroyElements(m_data, m_count);
        ::operator delete(m_data);
    }

    [[nodiscard]] const zelData::Format* format() const { return m_format; }
    [[nodiscard]] zel::uint64 count() const { return m_count; }
    [[nodiscard]] zel::uint64 numBytes() const { return m_count * m_format->getSize(); }
    [[nodiscard]] void* data() { return m_data; }
    [[nodiscard]] const void* data() const { return m_data; }
    [[nodiscard]] void* at(zel::uint64 i) { return static_cast<char*>(m_data) + i * m_format->getSize(); }
    template <typename T>
    [[nodiscard]] T* as() {
        return static_cast<T*>(m_data);
    }
    template <typename T>
    [[nodiscard]] const T* as() const {
        return static_cast<const T*>(m_data);
    }
    [[nodiscard]] bool sameBytes(const Elements& other) const {
        return numBytes() == other.numBytes() && std::memcmp(m_data, other.m_data, numBytes()) == 0;
    }
    void transformTo(Elements& target) const {
        zelData::transform(target.data(), target.format(), m_data, m_format, m_count);
    }

private:
    static void* allocate(const zelData::Format* format, zel::uint64 count) {
        // One byte more, so that an empty format has a place too.
        return ::operator new(format->getSize() * count + 1);
    }

    const zelData::Format* m_format;
    zel::uint64 m_count;
    void* m_data;
};

/// What the type's ascii format shows for an element.
template <typename T>
std::string toText(const char* format, const T& element) {
    const zelData::Format* source = zelData::getFormat(format);
    Elements text(source->getType()->getFormat("ascii"), 1);
    zelData::transform(text.data(), text.format(), &element, source, 1);
    return *text.as<zel::String>();
}

/// The element that the type's ascii format reads.
template <typename T>
T fromText(const char* format, const std::string& text) {
    const zelData::Format* target = zelData::getFormat(format);
    const zel::String source(text);
    T element{};
    zelData::transform(&element, target, &source, target->getType()->getFormat("ascii"), 1);
    return element;
}

} // namespace zelTest
