#pragma once

#include <zel/Component.h>
#include <zel/String.h>

namespace zelData {

/// What makes a run repeatable, as JSON: the texts of the model files, the versions of library and plug-ins,
/// the seeds of the generators below the root, and the command line. docs/recording.md tells the members.
[[nodiscard]] zel::String describeRun(zel::Component* root);

} // namespace zelData
