#pragma once

#include <tomcrypt.h>

#include <string_view>

namespace zelNet {

/// Whether the tokens are equal, in a time that does not tell how much of them is.
[[nodiscard]] inline bool isSameToken(std::string_view received, std::string_view token) {
    return received.size() == token.size() && mem_neq(received.data(), token.data(), token.size()) == 0;
}

} // namespace zelNet
