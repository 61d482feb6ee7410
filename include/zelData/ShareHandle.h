#pragma once

#include <zel/Device.h>
#include <zel/Export.h>
#include <zel/HashFn.h>
#include <zel/Integers.h>
#include <zel/Referenced.h>
#include <zel/Vector.h>

#include <functional>

namespace zelData {

class Buffer;

/// Links buffers that hold the same data on different devices. One of them is active: it holds the present
/// content. Each buffer counts a reference to the handle; the handle knows its buffers without owning them.
/// @threads owner thread
class ZEL_CORE_API ShareHandle : public zel::Referenced {
public:
    /// The platforms of two devices: what one is that holds the data, and what one is that wants it.
    struct PlatformBridge {
        PlatformBridge(zel::Device::Type from, zel::Device::Type to) noexcept : a(from), b(to) {}
        zel::Device::Type a;
        zel::Device::Type b;
        friend bool operator==(const PlatformBridge&, const PlatformBridge&) = default;
    };
    /// Makes the content of the one buffer available in the other.
    using TransferFunction = std::function<void(Buffer* target, Buffer* source)>;
    /// Prepares the two buffers for transfers between them.
    using InitFunction = std::function<void(Buffer* a, Buffer* b)>;

    /// A new handle without owner but its two buffers. The first one is active.
    static ShareHandle* create(Buffer* a, Buffer* b);

    /// Appends the buffer, which must belong to no handle.
    void addBuffer(Buffer* buffer);
    /// Lets go of the buffer; if it was active, none is. The handle may end with its last buffer.
    void removeBuffer(Buffer* buffer);
    /// Whether data can go from the platform of the one device to that of the other.
    [[nodiscard]] static bool hasBridge(const zel::Device* a, const zel::Device* b);
    /// Makes the buffer the one that holds the present content: the bridge from the active buffer's platform
    /// runs, which must exist. Does nothing on the active buffer. Without an active buffer there is nothing
    /// to transfer.
    void activate(Buffer* buffer);
    /// Runs the init function of the bridge of each pair of buffers that has one.
    void reinit();

    [[nodiscard]] Buffer* getActiveBuffer() const noexcept { return m_activeBuffer; }
    [[nodiscard]] const zel::Vector<Buffer*>& getBuffers() const noexcept { return m_buffers; }

    /// Enters the functions of a pair of platforms, in place of those that are there.
    static void
    registerBridge(const PlatformBridge& bridge, TransferFunction transfer, InitFunction init = nullptr);

private:
    Buffer* m_activeBuffer = nullptr;
    zel::Vector<Buffer*> m_buffers;
};

} // namespace zelData

namespace zel {

template <>
struct HashFn<zelData::ShareHandle::PlatformBridge, void> {
    [[nodiscard]] uint32 operator()(const zelData::ShareHandle::PlatformBridge& key) const noexcept {
        return detail::hash64((static_cast<uint64>(key.a) << 32U) | static_cast<uint64>(key.b));
    }
    [[nodiscard]] static bool equal(const zelData::ShareHandle::PlatformBridge& a,
                                    const zelData::ShareHandle::PlatformBridge& b) noexcept {
        return a == b;
    }
};

} // namespace zel
