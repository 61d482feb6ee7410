#pragma once

#include <zel/Export.h>

namespace zel {

/// Is told of the end of the objects it watches.
class ZEL_CORE_API Observer {
public:
    virtual ~Observer() = default;
    /// Called from the destructor of the watched object. Does nothing by default.
    virtual void objectDeleted(void* object);
};

} // namespace zel
