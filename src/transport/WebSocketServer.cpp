#include "Envelope.h"

#include <zel/Exception.h>
#include <zel/LockRank.h>
#include <zel/Log.h>
#include <zel/Verify.h>
#include <zelNet/AllowedHosts.h>
#include <zelNet/NetError.h>
#include <zelNet/WebSocketServer.h>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <libwebsockets.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

namespace zelNet {

using zel::uint16;
using zel::uint32;

namespace {

using ContextTable = zel::HashTable<lws_context*, WebSocketServer*>;

/// The servers, and what those that are to come are told.
struct Servers {
    zel::RankedMutex<zel::LockRank::WebSocketServers> mutex;
    ContextTable s_contexts;
    zel::String listenAddress;

    static Servers& instance() {
        static Servers servers;
        return servers;
    }
};

/// Whether a start that fails may print why.
bool s_allow_server_init_print = true;

constexpr int LogErrorsAndWarnings = LLL_ERR | LLL_WARN;
/// Of the connection that libwebsockets hands to the callback at once.
constexpr zel::size_t ReceiveBufferSize = 1048576;
/// A service that never finds an end goes on with the next call.
constexpr int MaxRounds = 10000;
/// A peer that sends without a pause is not to hold up who serves it.
constexpr std::chrono::milliseconds MaxServiceTime{20};

/// When a silent peer is asked for a sign of life, and when it is given up.
constexpr std::chrono::seconds AskAfter{30};
constexpr std::chrono::seconds GiveUpAfter{45};
/// Where nobody reads, such questions are not seen: how often life is shown without them.
constexpr std::chrono::seconds SignOfLifeInterval{10};

const char* environmentOf(const char* name) {
    return std::getenv(name); // NOLINT(concurrency-mt-unsafe)
}

zel::String listenAddressNow() {
    Servers& servers = Servers::instance();
    const std::lock_guard lock(servers.mutex);
    if (!servers.listenAddress.empty())
        return servers.listenAddress;
    const char* const fromEnvironment = environmentOf("ZEL_LISTEN_ADDRESS");
    return fromEnvironment == nullptr || *fromEnvironment == '\0' ? "lo" : fromEnvironment;
}

/// The value of a header of a handshake; empty if there is none. One that is too long to be true is not
/// valid.
bool readHeader(lws* handle, lws_token_indexes token, std::string& value) {
    char text[1024];
    const int length = lws_hdr_total_length(handle, token);
    value.clear();
    if (length == 0)
        return true;
    if (length < 0 || lws_hdr_copy(handle, text, sizeof(text), token) < 0)
        return false;
    value = text;
    return true;
}

/// A socket that is bound and closed again.
/// @return the errno of the failure; 0 if there was none
int tryToBind(in_addr_t address, uint16 port) {
    const int probe = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    (void)::setsockopt(probe, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)); // past connections do not count
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = address;
    local.sin_port = htons(port);
    const bool failed = ::bind(probe, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0;
    const int reason = failed ? errno : 0;
    ::close(probe);
    return reason;
}

/// Whether somebody listens at this port on all addresses: then no loopback address is left for another one.
bool isTakenOnAllAddresses(uint16 port) {
    // One of them may be somebody's own.
    return tryToBind(htonl(0x7F000002), port) != 0 && tryToBind(htonl(0x7F000003), port) != 0;
}

/// The first IPv4 address of a network device, or the address that the text is; false for others.
bool findAddress(const zel::String& name, in_addr& address) {
    if (inet_pton(AF_INET, name.c_str(), &address) == 1)
        return true;
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0)
        return false;
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> all(first, &freeifaddrs);
    for (const ifaddrs* device = first; device != nullptr; device = device->ifa_next)
        if (device->ifa_addr != nullptr && device->ifa_addr->sa_family == AF_INET &&
            name == device->ifa_name) {
            address = reinterpret_cast<const sockaddr_in*>(device->ifa_addr)->sin_addr; // NOLINT: as told
            return true;
        }
    return false;
}

void enter(lws_context* context, WebSocketServer* server) {
    Servers& servers = Servers::instance();
    const std::lock_guard lock(servers.mutex);
    servers.s_contexts.insert(context, server);
}

[[noreturn]] void failToStart(const char* reason) {
    ZEL_THROW(NetError, zel::String::format("libwebsocket init failed: %s\n", reason));
}

/// Where a server is to listen, as an address.
/// @throws NetError  if it cannot: libwebsockets, which would say so too, loses memory then
std::string requireAddress(const zel::String& name, uint16 port) {
    in_addr address{};
    if (!findAddress(name, address))
        failToStart(std::strerror(ENODEV));
    if (const int reason = tryToBind(address.s_addr, port))
        failToStart(std::strerror(reason));
    char text[INET_ADDRSTRLEN] = {};
    return inet_ntop(AF_INET, &address, text, sizeof(text));
}

bool namesProtocol(const std::string& list, const zel::String& protocol) {
    for (std::size_t begin = 0; begin <= list.size();) {
        const std::size_t end = std::min(list.find(',', begin), list.size());
        std::size_t first = begin, last = end;
        while (first < last && list[first] == ' ')
            ++first;
        while (last > first && list[last - 1] == ' ')
            --last;
        if (list.compare(first, last - first, protocol) == 0)
            return true;
        begin = end + 1;
    }
    return list.empty();
}

bool mayConnect(lws* handle, const zel::String& protocol) {
    std::string host, origin, protocols;
    return readHeader(handle, WSI_TOKEN_HOST, host) && readHeader(handle, WSI_TOKEN_ORIGIN, origin) &&
           readHeader(handle, WSI_TOKEN_PROTOCOL, protocols) && isAllowedHost(host) &&
           isAllowedOrigin(origin, host) && namesProtocol(protocols, protocol);
}

} // namespace

// What libwebsockets calls

class SocketEventHandler {
public:
    static int socket_event_callback(
        lws* handle, lws_callback_reasons reason, void* user, void* data, zel::size_t length) noexcept {
        try {
            return handleEvent(handle, reason, static_cast<WebSocket**>(user), data, length);
        } catch (const std::exception& e) {
            report(e.what());
        } catch (...) {
            report("unknown");
        }
        return 0;
    }

private:
    static void report(const char* what) {
        std::cerr
            << "WebSocket: Got a C++ exception while executing a C callback from libwebsocket. Message is '"
            << printable(what) << "\"." << std::endl;
    }

    static int handleEvent(
        lws* handle, lws_callback_reasons reason, WebSocket** session, void* data, zel::size_t length) {
        lws_context* const context = lws_get_context(handle);
        WebSocketServer* const server = WebSocketServer::getServer(context);
        if (server == nullptr)
            return 0;
        if (reason != LWS_CALLBACK_GET_THREAD_ID)
            server->m_hasActivity = true;
        switch (reason) {
        case LWS_CALLBACK_FILTER_PROTOCOL_CONNECTION:
            return mayConnect(handle, server->m_protocolName) && server->hasRoom() ? 0 : 1;
        case LWS_CALLBACK_ESTABLISHED:
        case LWS_CALLBACK_CLIENT_ESTABLISHED: {
            // The socket is there also where the callback that is told of it throws.
            struct Store {
                ~Store() { *session = server->getWebSocket(handle); }
                WebSocket** session;
                WebSocketServer* server;
                lws* handle;
            } store{session, server, handle};
            server->acceptNewClient(handle);
            break;
        }
        case LWS_CALLBACK_CLIENT_CONNECTION_ERROR:
            std::cout << "WebSocket connection error!" << std::endl;
            break;
        case LWS_CALLBACK_CLOSED:
        case LWS_CALLBACK_CLIENT_CLOSED:
            if (session != nullptr)
                *session = nullptr;
            server->connectionClosed(handle);
            break;
        case LWS_CALLBACK_RECEIVE:
        case LWS_CALLBACK_CLIENT_RECEIVE:
            if (WebSocket* const socket = socketOf(session, server, handle))
                socket->receive(
                    data, length, lws_remaining_packet_payload(handle), lws_is_final_fragment(handle) != 0);
            break;
        case LWS_CALLBACK_SERVER_WRITEABLE:
        case LWS_CALLBACK_CLIENT_WRITEABLE:
            if (WebSocket* const socket = socketOf(session, server, handle))
                socket->writeNext();
            break;
        case LWS_CALLBACK_HTTP_BODY_COMPLETION:
            // Other requests that are no handshakes end after 5 seconds; this one would stay for ever.
            lws_set_timeout(handle, PENDING_TIMEOUT_USER_REASON_BASE, LWS_TO_KILL_ASYNC);
            break;
        case LWS_CALLBACK_WSI_DESTROY:
            server->connectionDestroyed(handle);
            break;
        default:
            break;
        }
        return 0;
    }

    static WebSocket* socketOf(WebSocket** session, const WebSocketServer* server, lws* socketHandle) {
        WebSocket* const socket = session == nullptr ? nullptr : *session;
        if (socket != nullptr)
            zelVerify(socket == server->getWebSocket(socketHandle));
        return socket;
    }
};

// Starting

WebSocketServer::WebSocketServer(SocketCallback onConnect,
                                 SocketCallback onDisconnect,
                                 const zel::String& protocolName)
    : m_onConnect(std::move(onConnect))
    , m_onDisconnect(std::move(onDisconnect))
    , m_protocolName(protocolName)
    , m_idleLimits(static_cast<lws_retry_bo*>(std::calloc(1, sizeof(lws_retry_bo)))) {
    zelVerify(m_idleLimits);
    setIdleLimits(AskAfter, GiveUpAfter);
}

WebSocketServer::WebSocketServer(uint16 port,
                                 SocketCallback onConnect,
                                 SocketCallback onDisconnect,
                                 const zel::String& protocolName)
    : WebSocketServer(std::move(onConnect), std::move(onDisconnect), protocolName) {
    init(port);
}

WebSocketServer::WebSocketServer(PortRange* range,
                                 SocketCallback onConnect,
                                 SocketCallback onDisconnect,
                                 const zel::String& protocolName)
    : WebSocketServer(std::move(onConnect), std::move(onDisconnect), protocolName) {
    struct Silence {
        Silence() { s_allow_server_init_print = false; }
        Silence(const Silence&) = delete;
        Silence& operator=(const Silence&) = delete;
        ~Silence() { s_allow_server_init_print = true; }
    };
    bool success = false;
    {
        const Silence silence;
        while (!success) {
            const auto port = static_cast<uint16>(range->getPort());
            if (port == NoListen)
                break;
            try {
                init(port);
                success = true;
            } catch (const NetError&) {
                continue; // the next port may be free
            }
        }
    }
    zelVerifyN(success,
               "Unable to start websocket server with port range %u:%u",
               static_cast<unsigned>(range->getStartPort()),
               static_cast<unsigned>(range->getEndPort()));
}

void WebSocketServer::initProtocols() {
    const char* const protocolName = m_protocolName.c_str();
    zelVerifyN(strlen(protocolName) < 31, "libwebsocket has hardcoded max length on protocol name...");
    m_protocols.reset(static_cast<lws_protocols*>(std::calloc(2, sizeof(lws_protocols))));
    zelVerify(m_protocols);
    lws_protocols& first = m_protocols.get()[0];
    first.name = protocolName;
    first.callback = SocketEventHandler::socket_event_callback;
    first.per_session_data_size = sizeof(void*); // a WebSocket*
    first.rx_buffer_size = ReceiveBufferSize;
}

lws_context* WebSocketServer::makeContext(int port, const char* address, bool isSecure) {
    lws_context_creation_info info{};
    info.port = port;
    info.iface = address;
    info.protocols = m_protocols.get();
    info.max_http_header_data = 16384;
    info.pt_serv_buf_size = ReceiveBufferSize;
    info.gid = -1;
    info.uid = -1;
    info.retry_and_idle_policy = m_idleLimits.get();
    // Without IPv6, since an IPv4 address would else be taken for all of them.
    info.options = LWS_SERVER_OPTION_DISABLE_IPV6 | LWS_SERVER_OPTION_VALIDATE_UTF8 |
                   LWS_SERVER_OPTION_FAIL_UPON_UNABLE_TO_BIND;
    if (isSecure)
        info.options |= LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT;
    if (m_useSSL) {
        info.ssl_cert_filepath = info.ssl_private_key_filepath = environmentOf("ZEL_SSL_PEM_FILE");
        info.ssl_ca_filepath = environmentOf("ZEL_SSL_CA_FILE");
    }
    errno = 0;
    lws_context* const context = lws_create_context(&info);
    if (context == nullptr) {
        const int reason = errno;
        failToStart(reason == 0 ? "Internal error" : std::strerror(reason));
    }
    return context;
}

void WebSocketServer::init(uint16 port) {
    initProtocols();
    m_useSSL = environmentOf("ZEL_SSL_PEM_FILE") != nullptr;
    const bool listens = port != NoListen;
    const std::string address = listens ? requireAddress(listenAddressNow(), port) : std::string();
    const bool listensEverywhere = address == "0.0.0.0";

    lws_set_log_level(s_allow_server_init_print ? LogErrorsAndWarnings : 0, nullptr);
    lws_context* const context = makeContext(listens ? port : CONTEXT_PORT_NO_LISTEN,
                                             listensEverywhere || !listens ? nullptr : address.c_str(),
                                             m_useSSL);
    lws_set_log_level(LogErrorsAndWarnings, nullptr);
    if (listens)
        port = static_cast<uint16>(lws_get_vhost_listen_port(lws_get_vhost_by_name(context, "default")));
    if (listens && !listensEverywhere && isTakenOnAllAddresses(port)) {
        lws_context_destroy(context);
        failToStart(("it would listen on all addresses and not on " + address).c_str());
    }
    m_context = context;
    m_port = port;
    enter(context, this);
}

lws_context* WebSocketServer::contextForConnection(bool isSecure) {
    if (!isSecure || m_useSSL)
        return m_context;
    // Only now: it takes long to make, and libwebsockets loses memory wherever there are two such contexts.
    if (m_secureContext == nullptr) {
        m_secureContext = makeContext(CONTEXT_PORT_NO_LISTEN, nullptr, true);
        enter(m_secureContext, this);
    }
    return m_secureContext;
}

WebSocketServer::~WebSocketServer() {
    {
        Servers& servers = Servers::instance();
        const std::lock_guard lock(servers.mutex);
        servers.s_contexts.erase(m_context);
        servers.s_contexts.erase(m_secureContext);
    }
    for (const auto& [handle, socket] : m_clientSockets) {
        socket->connectionEnded();
        socket->m_server = nullptr;
    }
    lws_context_destroy(m_context);
    lws_context_destroy(m_secureContext);
}

void WebSocketServer::setListenAddress(const zel::String& address) {
    Servers& servers = Servers::instance();
    const std::lock_guard lock(servers.mutex);
    servers.listenAddress = address;
}

void WebSocketServer::setIdleLimits(std::chrono::seconds ask, std::chrono::seconds giveUp) {
    const auto least = std::chrono::seconds(1);
    const auto most = std::chrono::seconds(std::numeric_limits<uint16>::max());
    if (ask < least || giveUp <= ask || giveUp > most)
        throw std::runtime_error("WebSocketServer::setIdleLimits: the limits must be whole seconds from 1 to "
                                 "65535, and the second one above the first");
    const std::lock_guard lock(m_mutex);
    m_idleLimits->secs_since_valid_ping = static_cast<uint16>(ask.count());
    m_idleLimits->secs_since_valid_hangup = static_cast<uint16>(giveUp.count());
}

WebSocketServer* WebSocketServer::getServer(lws_context* context) {
    Servers& servers = Servers::instance();
    const std::lock_guard lock(servers.mutex);
    const auto found = servers.s_contexts.find(context);
    return found == servers.s_contexts.end() ? nullptr : found->value;
}

// At work

bool WebSocketServer::service(double /*time*/) {
    const std::lock_guard lock(m_mutex);
    if (m_isInService)
        return false;
    m_isInService = true;
    int numRounds = 0;
    const auto begin = std::chrono::steady_clock::now();
    const auto end = begin + MaxServiceTime;
    if (begin >= m_nextSignOfLife) {
        m_nextSignOfLife = begin + SignOfLifeInterval;
        for (const auto& [handle, socket] : m_clientSockets)
            if (socket->m_isPaused)
                socket->showLife();
    }
    do {
        m_hasActivity = false;
        lws_service(m_context, -1); // does not wait
        if (m_secureContext != nullptr)
            lws_service(m_secureContext, -1);
    } while (++numRounds < MaxRounds && m_hasActivity && std::chrono::steady_clock::now() < end);
    m_isInService = false;
    return m_hasActivity || numRounds > 1;
}

void WebSocketServer::send(WebSocket::Packet* packet) {
    const std::lock_guard lock(m_mutex);
    for (const auto& [handle, socket] : m_clientSockets)
        if (!socket->isAnonymous())
            socket->send(packet);
}

void WebSocketServer::send(const StructuredMessage* message) {
    const std::lock_guard lock(m_mutex);
    for (const auto& [handle, socket] : m_clientSockets)
        if (!socket->isAnonymous())
            socket->send(message);
}

WebSocket* WebSocketServer::createConnection(const zel::String& host,
                                             uint16 port,
                                             bool useSSL,
                                             const zel::String& path,
                                             const zel::String& protocol,
                                             bool isAnonymous) {
    ZEL_LOG_INFO("WebSocketServer::createConnection to "
                 << host << ", port: " << port << ", path: " << path << ", useSSL: " << useSSL
                 << ", protocol: " << protocol << ", isAnonymous: " << isAnonymous);
    const std::lock_guard lock(m_mutex);
    if (m_isInService)
        ZEL_THROW(NetError, "WebSocketServer::connect");
    lws_client_connect_info info{};
    info.context = contextForConnection(useSSL);
    info.address = host.c_str();
    info.port = port;
    info.ssl_connection = useSSL ? LCCSCF_USE_SSL | LCCSCF_ALLOW_SELFSIGNED : 0;
    info.path = path.empty() ? "/" : path.c_str();
    info.host = host.c_str();
    info.origin = "";
    info.protocol = protocol.c_str();
    info.ietf_version_or_minus_one = -1;
    info.pwsi = &m_pendingConnection; // known to the callbacks from the start
    lws* const handle = lws_client_connect_via_info(&info);
    if (handle == nullptr) {
        m_pendingConnection = nullptr;
        ZEL_THROW(NetError, "WebSocketServer::connect");
    }
    m_pendingConnection = handle;
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + m_connectLimit;
    WebSocket* socket = nullptr;
    while ((socket = getWebSocket(handle)) == nullptr) {
        const bool isQuiet = !service(0);
        if (m_pendingConnection == nullptr)
            ZEL_THROW(NetError, "WebSocketServer::connect");
        if (getWebSocket(handle) == nullptr && Clock::now() > end) {
            lws_set_timeout(handle, PENDING_TIMEOUT_USER_REASON_BASE, LWS_TO_KILL_ASYNC);
            m_pendingConnection = nullptr;
            ZEL_THROW(NetError, "WebSocketServer::connect");
        }
        if (isQuiet)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    socket->setAnonymous(isAnonymous);
    m_pendingConnection = nullptr;
    return socket;
}

bool WebSocketServer::hasRoom() const {
    if (m_clientSockets.size() >= MaxConnections)
        return false;
    if (m_maxUnauthenticated >= MaxConnections)
        return true;
    zel::size_t count = 0;
    for (const auto& [handle, socket] : m_clientSockets)
        if (!socket->isAuthenticated() && !socket->isOutgoing())
            ++count;
    return count < m_maxUnauthenticated;
}

WebSocket* WebSocketServer::getWebSocket(lws* handle) const {
    const auto found = m_clientSockets.find(handle);
    return found == m_clientSockets.end() ? nullptr : found->value.get();
}

WebSocket* WebSocketServer::acceptNewClient(lws* handle) {
    if (m_clientSockets.contains(handle))
        zelAbort("WebSocket: Was told that one of my old clients is a new client. Something is wrong.");
    zel::ref_ptr<WebSocket> socket(new WebSocket(this, handle, handle == m_pendingConnection));
    m_clientSockets.insert(handle, socket);
    if (m_onConnect)
        m_onConnect(socket.get());
    return socket.get();
}

void WebSocketServer::connectionClosed(lws* handle) {
    const auto found = m_clientSockets.find(handle);
    if (found == m_clientSockets.end()) {
        std::cerr << "WebSocketServer: Got connection closed event for an unknown socket." << std::endl;
        return;
    }
    const zel::ref_ptr<WebSocket> socket(found->value);
    socket->m_isClosing = true;
    // The callback may throw.
    struct End {
        ~End() {
            server->m_clientSockets.erase(handle);
            socket->connectionEnded();
        }
        WebSocketServer* server;
        lws* handle;
        WebSocket* socket;
    } end{this, handle, socket.get()};
    if (m_onDisconnect)
        m_onDisconnect(socket.get());
}

void WebSocketServer::connectionDestroyed(lws* handle) {
    if (m_pendingConnection == handle)
        m_pendingConnection = nullptr;
}

} // namespace zelNet
