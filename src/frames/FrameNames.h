#pragma once

#include <zel/Name.h>

namespace zelData {

/// Buffers of this name stand beside each other in a frame.
inline const zel::Name& incrementalName() {
    static const zel::Name name("Incremental");
    return name;
}

} // namespace zelData
