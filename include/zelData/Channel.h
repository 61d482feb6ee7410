#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Referenced.h>
#include <zel/SyncTag.h>
#include <zel/ref_ptr.h>

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
    /// Finishes the transfer: waits for the devices, lets what came from one go to the target, converted, and
    /// announces the change of the target.
    void postTransfer();
    /// Exchanges source and target, after the transfer that is under way.
    void flip();

    [[nodiscard]] bool isActive() const noexcept { return m_active; }
    [[nodiscard]] Buffer* getTarget() const noexcept { return m_target.get(); }
    [[nodiscard]] Buffer* getSource() const noexcept { return m_source.get(); }

private:
    void start(zel::uint64 sourceOffset, bool blocking);
    [[nodiscard]] bool isDirect() const;
    void transferDirectly(zel::uint64 sourceOffset, bool blocking);
    void makeStaging();
    void finishStaged(bool blocking);
    void convert(const void* elements, bool blocking);
    void waitForDevice();

    bool m_active = false;
    zel::ref_ptr<Buffer> m_target;
    zel::ref_ptr<Buffer> m_source;
    void* m_staging = nullptr; // two blocks of elements of the larger size
    zel::uint64 m_stagingCapacity = 0;
    zel::uint64 m_numElements = 0;
    zel::uint64 m_targetOffset = 0;
    bool m_staged = false;            // elements of the source wait in the staging memory
    zel::ref_ptr<zel::SyncTag> m_tag; // of the last call to a device
};

} // namespace zelData
