#pragma once

namespace zel {

/// Sets a flag for a while.
class FlagScope {
public:
    explicit FlagScope(bool& flag) noexcept : m_flag(flag) { m_flag = true; }
    FlagScope(const FlagScope&) = delete;
    FlagScope& operator=(const FlagScope&) = delete;
    ~FlagScope() { m_flag = false; }

private:
    bool& m_flag;
};

} // namespace zel
