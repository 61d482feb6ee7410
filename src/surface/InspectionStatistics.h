#pragma once

#include <json/value.h>

namespace zelNet {

/// What has been measured, as the inspection protocol tells it: at most 1,000 providers.
[[nodiscard]] Json::Value describeStatistics();

} // namespace zelNet
