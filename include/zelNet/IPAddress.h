#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/String.h>

#include <iosfwd>

namespace zelNet {

/// An IPv4 address with a port; a value.
/// @threads any thread
class ZEL_CORE_API IPAddress {
public:
    zel::uint32 host = 0; ///< network byte order: the first of the four numbers in the lowest byte
    zel::uint16 port = 0; ///< host byte order

    constexpr IPAddress() noexcept = default;
    constexpr IPAddress(zel::uint32 hostNumber, zel::uint16 portNumber) noexcept
        : host(hostNumber), port(portNumber) {}
    /// Looks the name up, see Library::getHostByName.
    IPAddress(const zel::String& hostName, zel::uint16 portNumber);

    /// "127.0.0.1:8080"
    [[nodiscard]] zel::String string() const;
    friend constexpr bool operator==(const IPAddress&, const IPAddress&) = default;

    /// The host of a text such as "127.0.0.1": four numbers of one to three decimal digits, and nothing else.
    /// @throws NetError  for null and any other text
    [[nodiscard]] static zel::uint32 parseString(const char* text);
};

/// As IPAddress::string.
ZEL_CORE_API std::ostream& operator<<(std::ostream& stream, const IPAddress& address);

} // namespace zelNet
