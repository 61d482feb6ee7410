#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/ServicePointer.h>
#include <zel/Singleton.h>
#include <zelNet/IPAddress.h>

#include <string>

namespace zelNet {

/// What all sockets of the process share. Made by the first operation on any socket.
/// @threads any thread for instance and getHostByName; owner thread otherwise
class ZEL_CORE_API Library : public zel::Singleton {
public:
    [[nodiscard]] static Library* instance();

    void shutdown() override;
    [[nodiscard]] std::string getClassName() const override;
    ~Library() override;

    /// Lets the process ignore SIGPIPE, so that a peer that goes away is an exception and not the end. A
    /// handler that the application has installed stays.
    void initSockets();
    /// Brings the default of SIGPIPE back, unless the application has a handler.
    void deinitSockets();

    /// Looks the name up, or reads an address such as "127.0.0.1". May wait for a server of names.
    /// @throws NetError  for null, and for a name without an IPv4 address
    [[nodiscard]] static IPAddress getHostByName(const char* name, zel::uint16 port);

private:
    Library();

    bool m_socketsInitialised = false;
    static zel::ServicePointer<Library> s_instance;
};

} // namespace zelNet
