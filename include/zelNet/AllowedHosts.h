#pragma once

#include <zel/Export.h>
#include <zel/String.h>

#include <string_view>

/// @file
/// Which hosts a request may name. A browser on this machine shows pages of all the world, and any of them
/// may send requests to servers of this machine; it tells by the headers Host and Origin. A server is only
/// ever addressed by an IP address, "localhost", or this machine's name; what names another host comes from a
/// page that a name server has led here.

namespace zelNet {

/// Takes one more name of this machine for one; case does not count.
/// @threads any thread
ZEL_CORE_API void allowHost(const zel::String& host);

/// Whether a Host header names this machine: an IP address, "localhost", this machine's name, or one of
/// allowHost, with or without a port.
/// @threads any thread
[[nodiscard]] ZEL_CORE_API bool isAllowedHost(std::string_view host);

/// Whether a page of this origin, such as "http://localhost:8080", may talk to what it called `host`: the
/// hosts are the same, whatever the ports. No origin (empty) comes from no page and is allowed; "null" is
/// not.
/// @threads any thread
[[nodiscard]] ZEL_CORE_API bool isAllowedOrigin(std::string_view origin, std::string_view host);

} // namespace zelNet
