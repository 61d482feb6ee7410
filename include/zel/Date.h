#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>

#include <compare>
#include <ctime>
#include <string>

namespace zel {

/// An instant of the calendar: seconds and microseconds since the epoch, 1970-01-01 00:00:00 UTC.
/// @threads external lock
class ZEL_CORE_API Date {
public:
    /// The epoch.
    constexpr Date() noexcept = default;
    /// @param microSeconds  0 to 999999
    constexpr Date(int64 seconds, int64 microSeconds) noexcept
        : m_seconds(seconds), m_microSeconds(microSeconds) {}

    [[nodiscard]] static Date now() noexcept;

    [[nodiscard]] constexpr int64 getSeconds() const noexcept { return m_seconds; }
    [[nodiscard]] constexpr int64 getMicroSeconds() const noexcept { return m_microSeconds; }
    constexpr void setSeconds(int64 seconds) noexcept { m_seconds = seconds; }
    constexpr void setMicroSeconds(int64 microSeconds) noexcept { m_microSeconds = microSeconds; }

    /// Broken down in the local time zone.
    [[nodiscard]] std::tm localTime() const;
    /// The local time as "2024-05-31 17:03:59".
    [[nodiscard]] std::string toStringDateAndTime() const;

    friend constexpr bool operator==(const Date&, const Date&) noexcept = default;
    /// The earlier instant is the smaller.
    friend constexpr std::strong_ordering operator<=>(const Date&, const Date&) noexcept = default;

private:
    int64 m_seconds = 0;
    int64 m_microSeconds = 0;
};

} // namespace zel
