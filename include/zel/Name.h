#pragma once

#include <zel/Export.h>
#include <zel/HashFn.h>
#include <zel/String.h>

#include <atomic>
#include <iosfwd>
#include <string>
#include <utility>

namespace zel {

namespace detail {
/// Lies ahead of the characters of an interned text, in one allocation with them:
///
///     offset -8   atomic unsigned 32-bit count of the names
///     offset -4   unsigned 32-bit length in bytes
///     offset  0   the characters and a terminating zero; a name points here
struct NameHeader {
    std::atomic<uint32> count;
    uint32 length;

    [[nodiscard]] static NameHeader& of(char* text) noexcept {
        return *(reinterpret_cast<NameHeader*>(text) - 1);
    }
};
static_assert(sizeof(NameHeader) == 8 && alignof(NameHeader) == 4);
} // namespace detail

/// An interned, reference-counted text: one pointer. All names with the same text share one array, so
/// comparing and hashing cost what they cost for a pointer. Making one from text takes a process-wide mutex:
/// do it when setting up, not in a hot path.
/// @threads any thread
class ZEL_CORE_API Name {
public:
    Name() noexcept : m_text(emptyText()) { reference(m_text); }
    Name(const char* text);
    Name(const std::string& text);
    Name(const String& text) : Name(static_cast<const std::string&>(text)) {}
    Name(const Name& other) noexcept : m_text(other.m_text) { reference(m_text); }
    Name(Name&& other) noexcept : Name() { std::swap(m_text, other.m_text); }
    ~Name() { unreference(m_text); }

    Name& operator=(const Name& other) noexcept {
        if (m_text != other.m_text) {
            reference(other.m_text);
            unreference(std::exchange(m_text, other.m_text));
        }
        return *this;
    }
    Name& operator=(Name&& other) noexcept {
        std::swap(m_text, other.m_text);
        return *this;
    }

    [[nodiscard]] const char* c_str() const noexcept { return m_text; }
    [[nodiscard]] std::string str() const { return {m_text, length()}; }
    operator String() const { return str(); }
    [[nodiscard]] bool empty() const noexcept { return length() == 0; }
    /// In bytes, read from the shared array.
    [[nodiscard]] uint32 length() const noexcept { return detail::NameHeader::of(m_text).length; }

    friend bool operator==(const Name& a, const Name& b) noexcept { return a.m_text == b.m_text; }

    /// Number of names that share this text; for tests and diagnosis.
    [[nodiscard]] uint32 useCount() const noexcept {
        return detail::NameHeader::of(m_text).count.load(std::memory_order_relaxed);
    }

    /// Whether the process-wide cache exists, which it does while any non-empty name lives.
    [[nodiscard]] static bool cacheExists();

private:
    struct EmptyArray {
        detail::NameHeader header;
        char text[8];
    };
    /// The shared text of all empty names. Constant-initialised, so that names work in any static
    /// constructor; the library itself holds one count.
    static EmptyArray s_emptyString;

    static char* emptyText() noexcept { return s_emptyString.text; }
    static void reference(char* text) noexcept {
        detail::NameHeader::of(text).count.fetch_add(1, std::memory_order_seq_cst);
    }
    static void unreference(char* text) noexcept {
        if (detail::NameHeader::of(text).count.fetch_sub(1, std::memory_order_seq_cst) == 1)
            destroy(text);
    }

    static char* intern(const char* text);
    static void destroy(char* text) noexcept;

    char* m_text;
};

ZEL_CORE_API std::ostream& operator<<(std::ostream& stream, const Name& name);

// Concatenation gives a string and never a name.
[[nodiscard]] inline String operator+(const Name& a, const Name& b) {
    return a.str() + b.str();
}
[[nodiscard]] inline String operator+(const Name& a, const std::string& b) {
    return a.str() + b;
}
[[nodiscard]] inline String operator+(const std::string& a, const Name& b) {
    return a + b.c_str();
}
[[nodiscard]] inline String operator+(const Name& a, const char* b) {
    return a.str() + b;
}
[[nodiscard]] inline String operator+(const char* a, const Name& b) {
    return a + b.str();
}

template <>
struct HashFn<Name, void> {
    [[nodiscard]] uint32 operator()(const Name& key) const noexcept {
        return detail::hash64(reinterpret_cast<uint64>(key.c_str()));
    }
    [[nodiscard]] static bool equal(const Name& a, const Name& b) noexcept { return a == b; }
};

} // namespace zel
