#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Referenced.h>
#include <zel/Vector.h>

namespace zelNet {

/// Lets the system choose a port, wherever a server is to listen. By this name, since a bare 0 may be a
/// pointer too.
constexpr zel::uint16 AnyPort = 0;

/// A port that no UDP socket uses now; used for TCP as well, where it is nearly always free too.
/// @throws NetError
/// @threads any thread
[[nodiscard]] ZEL_CORE_API zel::uint16 getAvailablePort();

/// Hands out ports, in ascending order and each once.
///
/// Owned through ref_ptr.
/// @threads external lock
class ZEL_CORE_API PortRange : public zel::Referenced {
public:
    /// @param end  the last port, above `start`
    PortRange(zel::uint16 start, zel::uint16 end);
    ~PortRange() override;

    [[nodiscard]] zel::uint16 getStartPort() const noexcept { return m_startPort; }
    [[nodiscard]] zel::uint16 getEndPort() const noexcept { return m_endPort; }
    /// Begins anew with the first port.
    void reset();
    /// @return the next port; ~0 where none is left, which looks like port 65535 in 16 bits
    [[nodiscard]] zel::uint32 getPort();

private:
    zel::uint16 m_startPort;
    zel::uint16 m_endPort;
    zel::Vector<zel::uint16> m_ports; // not handed out, in descending order
};

} // namespace zelNet
