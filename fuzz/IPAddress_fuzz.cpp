// Addresses: a text gives what its numbers say or an exception, and what was written is read again.
#include "Support.h"

#include <zelNet/IPAddress.h>
#include <zelNet/NetError.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <sstream>
#include <string>

namespace {

/// The reader's rules once more.
std::optional<zel::uint32> expected(const std::string& text) {
    std::istringstream stream(text + '.');
    zel::uint32 host = 0;
    int numGroups = 0;
    for (std::string group; std::getline(stream, group, '.'); ++numGroups) {
        if (numGroups == 4 || group.empty() || group.size() > 3 ||
            group.find_first_not_of("0123456789") != std::string::npos || std::stoi(group) > 255)
            return {};
        host |= static_cast<zel::uint32>(std::stoi(group)) << (8 * numGroups);
    }
    if (numGroups != 4)
        return {};
    return host;
}

std::optional<zel::uint32> parsed(const std::string& text) {
    try {
        return zelNet::IPAddress::parseString(text.c_str());
    } catch (const zelNet::NetError&) {
        return {};
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zelFuzz::initQuietly();
    // Up to a NUL, which ends the text.
    const std::string text = std::string(reinterpret_cast<const char*>(data), size).c_str();
    const auto host = parsed(text);
    if (host != expected(text))
        std::abort();
    if (host) {
        const std::string written = zelNet::IPAddress(*host, 1).string();
        if (!written.ends_with(":1") || parsed(written.substr(0, written.size() - 2)) != host)
            std::abort();
    }
    return 0;
}
