#pragma once

#include <utility>

namespace zel {

/// Sets a flag for a while.
class FlagScope {
public:
    explicit FlagScope(bool& flag) noexcept : m_flag(flag), m_outer(std::exchange(flag, true)) {}
    FlagScope(const FlagScope&) = delete;
    FlagScope& operator=(const FlagScope&) = delete;
    ~FlagScope() { m_flag = m_outer; }

private:
    bool& m_flag;
    bool m_outer;
};

} // namespace zel
