#include "SystemCalls.h"

#include <zel/Log.h>

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <ctime>

namespace zelNet {

sockaddr_in toSystem(const IPAddress& address) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = address.host;
    result.sin_port = htons(address.port);
    return result;
}

int openDescriptor(int type) {
    return ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
}

bool bindToPort(int descriptor, zel::uint16 port) {
    const sockaddr_in local = toSystem(IPAddress(INADDR_ANY, port));
    return ::bind(descriptor, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) == 0;
}

void switchOn(int descriptor, int level, int option, const char* name) {
    const int on = 1;
    if (::setsockopt(descriptor, level, option, &on, sizeof(on)) != 0) {
        const int error = errno;
        ZEL_LOG_WARNING("Could not switch " << name << " on: error " << error);
    }
}

int pollFor(pollfd* entries, zel::size_t numEntries, zel::uint32 timeoutMs) {
    const timespec timeout{static_cast<time_t>(timeoutMs / 1000),
                           static_cast<long>(timeoutMs % 1000) * 1'000'000};
    const int numReady = ::ppoll(entries, numEntries, &timeout, nullptr);
    if (numReady > 0 && std::any_of(entries, entries + numEntries, [](const pollfd& e) {
            return (e.revents & POLLNVAL) != 0;
        })) {
        errno = EBADF;
        return -1;
    }
    return numReady;
}

bool pollRemembering(pollfd* entries, zel::size_t numEntries, zel::uint32 timeoutMs) {
    // To wait in vain is a success, which ends nothing.
    return callRemembering([&] { return pollFor(entries, numEntries, timeoutMs) < 0 ? -1 : 1; }) > 0;
}

} // namespace zelNet
