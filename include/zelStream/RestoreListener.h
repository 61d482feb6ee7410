#pragma once

#include <zel/Export.h>
#include <zel/Referenced.h>

namespace zelStream {

class InputArchive;
class Serializable;

/// Learns of each object that an archive has restored.
/// @threads owner thread
class ZEL_CORE_API RestoreListener : public zel::Referenced {
public:
    /// Called behind the object's own `restore`; what the object refers to may still be on its way. May add
    /// and remove listeners.
    virtual void objectRestored(Serializable* object, InputArchive& archive) = 0;
};

} // namespace zelStream
