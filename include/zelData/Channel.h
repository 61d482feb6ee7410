#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Referenced.h>
#include <zel/ref_ptr.h>

namespace zel {
class Device;
} // namespace zel

namespace zelData {

class Buffer;

/// Copies elements between two buffers of one type, which may lie on different devices, in different formats
/// and byte orders.
///
///     zelData::Channel channel(target, source);
///     if (channel.transfer(0, 0, source->size(), false))
///         channel.postTransfer();
///
/// @threads owner thread
/// @cost one copy where the formats and byte orders agree; otherwise staging memory of the size of the
/// largest transfer so far, which is kept
class ZEL_CORE_API Channel : public zel::Referenced {
public:
    Channel(Buffer* target, Buffer* source);
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;
    ~Channel() override;

    /// Starts to copy n elements; the target grows if it is too small. Finished by postTransfer, ahead of the
    /// next transfer.
    /// @param blocking  whether the devices are to be done when the call returns
    /// @return false if there was nothing to copy
    bool transfer(zel::uint64 targetOffset, zel::uint64 sourceOffset, zel::uint64 n, bool blocking);
    /// Finishes the transfer: what came from a device is converted and goes to the target.
    void postTransfer();
    /// Exchanges source and target. Not while a transfer is under way.
    void flip();

    [[nodiscard]] bool isActive() const noexcept { return m_active; }
    [[nodiscard]] Buffer* getTarget() const noexcept { return m_target.get(); }
    [[nodiscard]] Buffer* getSource() const noexcept { return m_source.get(); }

private:
    [[nodiscard]] bool isDirect() const;
    void transferDirectly(zel::uint64 sourceOffset, bool blocking);
    void* stage(zel::uint64 numBytes);
    void sendStaged(const void* source, bool blocking);

    bool m_active = false;
    zel::ref_ptr<Buffer> m_target;
    zel::ref_ptr<Buffer> m_source;
    void* m_staging = nullptr; // malloc
    zel::uint64 m_stagingCapacity = 0;
    zel::uint64 m_numElements = 0;
    zel::uint64 m_targetOffset = 0;
    bool m_staged = false; // elements of the source, in its format and byte order, wait in the staging memory
    bool m_blocking = false;
};

} // namespace zelData
