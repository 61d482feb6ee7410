#include <zel/LockRank.h>
#include <zelNet/AllowedHosts.h>

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <mutex>
#include <set>
#include <string>

namespace zelNet {

namespace {

std::string inLowerCase(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) {
        return static_cast<char>(std::tolower(c));
    });
    return lower;
}

/// Names that stand for this machine, in lower case.
struct OwnNames {
    OwnNames() {
        names.insert("localhost");
        char name[256] = {};
        if (gethostname(name, sizeof(name) - 1) == 0)
            names.insert(inLowerCase(name));
    }
    static OwnNames& instance() {
        static OwnNames own;
        return own;
    }

    zel::RankedMutex<zel::LockRank::AllowedHosts> mutex;
    std::set<std::string, std::less<>> names;
};

bool isPort(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

/// The host of "host", "host:port", "[address]" and "[address]:port"; empty for any other text.
std::string_view hostWithoutPort(std::string_view text) {
    const bool isBracketed = text.starts_with('[');
    const std::size_t end = isBracketed ? text.find(']') : text.find(':');
    if (end == std::string_view::npos)
        return isBracketed ? std::string_view() : text;
    const std::string_view rest = text.substr(end + (isBracketed ? 1 : 0));
    if (!rest.empty() && (rest.front() != ':' || !isPort(rest.substr(1))))
        return {};
    return isBracketed ? text.substr(1, end - 1) : text.substr(0, end);
}

bool isAddress(const std::string& host) {
    unsigned char address[16];
    return inet_pton(AF_INET, host.c_str(), address) == 1 || inet_pton(AF_INET6, host.c_str(), address) == 1;
}

} // namespace

void allowHost(const zel::String& host) {
    OwnNames& own = OwnNames::instance();
    const std::lock_guard lock(own.mutex);
    own.names.insert(inLowerCase(host));
}

bool isAllowedHost(std::string_view host) {
    const std::string name = inLowerCase(hostWithoutPort(host));
    if (name.empty())
        return false;
    if (isAddress(name))
        return true;
    OwnNames& own = OwnNames::instance();
    const std::lock_guard lock(own.mutex);
    return own.names.contains(name);
}

bool isAllowedOrigin(std::string_view origin, std::string_view host) {
    if (origin.empty())
        return true;
    const std::size_t scheme = origin.find("://");
    if (scheme == std::string_view::npos)
        return false;
    const std::string_view page = hostWithoutPort(origin.substr(scheme + 3));
    return !page.empty() && inLowerCase(page) == inLowerCase(hostWithoutPort(host));
}

} // namespace zelNet
