#pragma once

#include <zel/Integers.h>

#include <string>

namespace tool {

/// What a user calls a stream of frames: "tcp:4000", "ws:host:4000".
struct StreamName {
    bool isWebSocket = false;
    std::string host; ///< empty where frames go out
    zel::uint16 port = 0;

    [[nodiscard]] std::string text() const;

    /// @param hasHost  whether a host is part of the name
    /// @throws UsageError that begins with the option
    [[nodiscard]] static StreamName parse(const std::string& option, const std::string& text, bool hasHost);
};

} // namespace tool
