#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Referenced.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelNet/Socket.h>

namespace zelNet {

/// Sockets that are waited for together. Keeps them alive. See Socket about signals.
///
/// Owned through ref_ptr.
/// @threads external lock
class ZEL_CORE_API SocketSet : public zel::Referenced {
public:
    ~SocketSet() override;

    /// How many a set can hold.
    [[nodiscard]] static constexpr zel::uint32 getMaxSockets() noexcept { return 1024; }
    /// @return false for a socket that is there
    /// @throws NetError  for null, and where the set is full
    bool addSocket(Socket* socket);
    /// The others keep their order.
    /// @return false for a socket that is not there
    /// @throws NetError  for null
    bool removeSocket(Socket* socket);
    /// Waits until one of them can be read from, and sets inputReady of each that can; leaves that of the
    /// others. Passes over closed sockets, and does not wait where no other is there.
    /// @return whether any can be read from; false for a failure too
    [[nodiscard]] bool checkSockets(zel::uint32 timeoutMs);

private:
    zel::Vector<zel::ref_ptr<Socket>> m_sockets;
};

} // namespace zelNet
