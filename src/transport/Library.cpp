#include <zel/Exception.h>
#include <zel/String.h>
#include <zelNet/Library.h>
#include <zelNet/NetError.h>

#include <arpa/inet.h>
#include <netdb.h>

#include <csignal>
#include <memory>

namespace zelNet {

constinit zel::ServicePointer<Library> Library::s_instance;

namespace {

/// Replaces one disposition of SIGPIPE by another, and leaves any third one with its flags.
void replaceSigPipe(sighandler_t old, sighandler_t replacement) {
    struct sigaction action {};
    if (sigaction(SIGPIPE, nullptr, &action) == 0 && (action.sa_flags & SA_SIGINFO) == 0 &&
        action.sa_handler == old)
        std::signal(SIGPIPE, replacement);
}

} // namespace

Library* Library::instance() {
    return s_instance.get([] { return new Library; });
}

Library::Library() {
    initSockets();
}

Library::~Library() {
    Library::shutdown();
}

void Library::shutdown() {
    deinitSockets();
    s_instance.forget(this);
}

std::string Library::getClassName() const {
    return __PRETTY_FUNCTION__;
}

void Library::initSockets() {
    replaceSigPipe(SIG_DFL, SIG_IGN);
    m_socketsInitialised = true;
}

void Library::deinitSockets() {
    if (!m_socketsInitialised)
        return;
    replaceSigPipe(SIG_IGN, SIG_DFL);
    m_socketsInitialised = false;
}

IPAddress Library::getHostByName(const char* name, zel::uint16 port) {
    (void)instance();
    if (name == nullptr)
        ZEL_THROW(NetError, "Sockets::GetHostByName(): pointer passed as argument is 0");
    const in_addr_t number = inet_addr(name);
    if (number != INADDR_NONE)
        return {number, port};

    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(name, nullptr, &hints, &found) != 0 || found == nullptr)
        ZEL_THROW(NetError, "Sockets::GetHostByName(): gethostbyname() failed");
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(found, freeaddrinfo);
    return {reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr.s_addr, port};
}

} // namespace zelNet
