#pragma once

#include <zel/Export.h>
#include <zel/HashFn.h>
#include <zel/Name.h>
#include <zel/String.h>

#include <cstddef>
#include <iosfwd>
#include <iterator>
#include <string>
#include <string_view>

namespace zel {

/// A dotted name, such as "Sun.Earth.Moon". A leading "@" of the text is dropped. May be empty.
/// @threads concurrent reads
class ZEL_CORE_API Path {
public:
    static constexpr char Separator = '.';

    /// Yields the parts from the root to the back, one by one.
    class iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = Name;
        using difference_type = std::ptrdiff_t;
        using pointer = void;
        using reference = Name;

        iterator() = default;
        [[nodiscard]] Name operator*() const { return std::string(part()); }
        [[nodiscard]] std::string_view part() const noexcept {
            return m_rest.substr(0, m_rest.find(Separator));
        }
        iterator& operator++() noexcept;
        iterator operator++(int) noexcept {
            iterator old = *this;
            ++*this;
            return old;
        }
        friend bool operator==(const iterator& a, const iterator& b) noexcept {
            return a.m_end == b.m_end && (a.m_end || a.m_rest.data() == b.m_rest.data());
        }

    private:
        friend class Path;
        explicit iterator(std::string_view rest) noexcept : m_rest(rest), m_end(rest.empty()) {}
        std::string_view m_rest;
        bool m_end = true;
    };

    Path() = default;
    Path(const char* text) { init(text == nullptr ? std::string_view() : std::string_view(text)); }
    Path(const std::string& text) { init(text); }
    Path(const Name& name) { init(name.c_str()); }

    /// Takes the text; a leading "@" is removed.
    void init(std::string_view text);

    /// The text up to the first separator, or all of it.
    [[nodiscard]] Name root() const;
    /// The text after the first separator.
    [[nodiscard]] Path tail() const;
    /// The text after the last separator, or all of it.
    [[nodiscard]] Name back() const;
    /// The text before the last separator.
    [[nodiscard]] Path base() const;

    [[nodiscard]] bool hasTail() const noexcept { return m_text.find(Separator) != std::string::npos; }
    [[nodiscard]] bool empty() const noexcept { return m_text.empty(); }
    /// Whether one of the parts is the name.
    [[nodiscard]] bool contains(const Name& name) const;
    /// Whether the parts of the other path stand in this one, in a row. An empty path is contained in each.
    [[nodiscard]] bool contains(const Path& path) const;
    [[nodiscard]] const char* c_str() const noexcept { return m_text.c_str(); }
    [[nodiscard]] const String& str() const noexcept { return m_text; }

    [[nodiscard]] iterator begin() const noexcept { return iterator(m_text); }
    [[nodiscard]] iterator end() const noexcept { return {}; }

    /// Joins by the separator when both sides are non-empty.
    Path& operator+=(const Path& other);
    friend Path operator+(Path a, const Path& b) { return a += b; }
    friend bool operator==(const Path& a, const Path& b) noexcept {
        return static_cast<const std::string&>(a.m_text) == static_cast<const std::string&>(b.m_text);
    }

private:
    String m_text;
};

ZEL_CORE_API std::ostream& operator<<(std::ostream& stream, const Path& path);

template <>
struct HashFn<Path, void> {
    [[nodiscard]] uint32 operator()(const Path& key) const noexcept { return HashFn<String>()(key.str()); }
    [[nodiscard]] static bool equal(const Path& a, const Path& b) noexcept { return a == b; }
};

} // namespace zel
