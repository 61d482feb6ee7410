#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Referenced.h>

namespace zel {

/// Tells whether a device is ready for a job that was prepared for it. A job with a tag stays in the queue
/// until the tag is ready. The base class is always ready.
/// @threads any thread
class ZEL_CORE_API SyncTag : public Referenced {
public:
    /// What getStatus gives for a device that failed.
    static constexpr int32 SYNC_TAG_ERROR = -1;

    /// Blocks until the device is ready.
    /// @return a status as getStatus gives it, never 0
    virtual int32 wait();
    /// @return 0 while the device is not ready, SYNC_TAG_ERROR if it failed, anything else when it is ready
    virtual int32 getStatus();
};

} // namespace zel
