#pragma once

#include <zel/Statistics.h>

namespace zel::detail {

/// The numbers of a slot of double, float or unsigned long.
/// @return false for any other slot, and then nothing is read
[[nodiscard]] bool readNumbers(const StatisticsData& data, Statistics::TimingInfo& info);
/// The current number as text; empty, with a warning, if its type has no such form.
[[nodiscard]] String valueText(const StatisticsData& data);
[[nodiscard]] String accumulatedText(const StatisticsData& data);

} // namespace zel::detail
