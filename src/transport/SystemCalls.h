#pragma once

#include <zel/Integers.h>
#include <zelNet/IPAddress.h>

#include <netinet/in.h>
#include <poll.h>

#include <cerrno>
#include <cstddef>

// The system's calls as the sockets use them.

namespace zelNet {

[[nodiscard]] sockaddr_in toSystem(const IPAddress& address);

/// @param type  SOCK_STREAM or SOCK_DGRAM
/// @return a new descriptor; below 0 for a failure
[[nodiscard]] int openDescriptor(int type);
/// To all addresses of the machine.
/// @return whether it worked
[[nodiscard]] bool bindToPort(int descriptor, zel::uint16 port);
/// Switches the option on; a failure is a warning in the log.
void switchOn(int descriptor, int level, int option, const char* name);

/// Repeats a system call that was interrupted, until it fails or gives 0. The interruption is remembered:
/// from then on a call that succeeds is repeated too.
template <typename Call>
[[nodiscard]] auto callRemembering(const Call& call) -> decltype(call()) {
    bool interrupted = false;
    for (;;) {
        const auto result = call();
        if (result < 0 && errno == EINTR)
            interrupted = true;
        else if (result <= 0 || !interrupted)
            return result;
    }
}

/// Waits once.
/// @return how many entries have events; below 0 for a failure, such as an entry that is no open descriptor
[[nodiscard]] int pollFor(pollfd* entries, zel::size_t numEntries, zel::uint32 timeoutMs);
/// The same, interrupted and repeated as told for callRemembering.
/// @return whether it worked
[[nodiscard]] bool pollRemembering(pollfd* entries, zel::size_t numEntries, zel::uint32 timeoutMs);

/// The events that mean that a call to read, or to write, does not wait.
constexpr short ReadableEvents = POLLIN | POLLHUP | POLLERR;
constexpr short WritableEvents = POLLOUT | POLLERR;

} // namespace zelNet
