#pragma once

#include <zel/Integers.h>

#include <string>
#include <string_view>

namespace zel {

/// Looks among the names that there are for the one that a wrong name was meant to be: one that differs in
/// case alone, or in a quarter of its letters at most. Of two that are as near the one counts that is first
/// in the order of their letters, in whatever order tables and directories give them.
class NearName {
public:
    explicit NearName(std::string_view wrong) : m_wrong(wrong) {}

    void consider(std::string_view name);
    /// The nearest name; empty if none is near.
    [[nodiscard]] const std::string& get() const noexcept { return m_best; }
    /// For the end of a message: " (did you mean 'NAME'?)", or nothing.
    [[nodiscard]] std::string hint() const;
    [[nodiscard]] static std::string hint(std::string_view name);

private:
    std::string m_wrong;
    std::string m_best;
    size_t m_bestDistance = ~size_t{0};
};

/// How many letters must be put in, left out, changed, or swapped with their neighbour.
[[nodiscard]] size_t editDistance(std::string_view a, std::string_view b);

} // namespace zel
