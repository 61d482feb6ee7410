#pragma once

#include <zel/Callback.h>
#include <zel/Export.h>
#include <zel/HashTable.h>
#include <zel/Integers.h>
#include <zel/Referenced.h>
#include <zel/String.h>
#include <zel/ref_ptr.h>
#include <zelNet/PortRange.h>
#include <zelNet/WebSocket.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>

struct lws_context;
struct lws_protocols;
struct lws_retry_bo;

namespace zelNet {

/// Listens for WebSocket connections on a port, and makes outgoing ones. No thread of its own: the owner
/// calls `service` again and again, and all callbacks come from there.
///
///     WebSocketServer server(AnyPort, onConnect, onDisconnect, "my_protocol");
///     while (running)
///         server.service(0);
///
/// It listens on the loopback device, so that only programs of this machine can connect; the environment
/// variable ZEL_LISTEN_ADDRESS, or setListenAddress, names another device or address ("0.0.0.0" for all).
/// With the environment variable ZEL_SSL_PEM_FILE, which names a file with certificate and key, connections
/// are encrypted; ZEL_SSL_CA_FILE may name the certificates that are trusted.
///
/// Who connects must name the server's protocol, or none, and come from a page of an allowed host, see
/// AllowedHosts.h: a page of another site that a browser of this machine shows gets nothing.
///
/// One mutex guards a server: callbacks run while it is held. It has no rank, since callbacks of the program
/// may take any lock; so do not wait in a callback for a thread that sends through the same server.
///
/// Owned through ref_ptr, or by value where nobody counts.
/// @threads making and destroying: external lock; all else: any thread, one at a time
class ZEL_CORE_API WebSocketServer : public zel::Referenced {
public:
    using SocketCallback = zel::Callback1<WebSocket*>;

    /// A port that stands for none: the server only makes connections.
    static constexpr zel::uint16 NoListen = 65535;
    static constexpr zel::size_t DefaultMaxMessageSize = zel::size_t{64} << 20;
    static constexpr zel::size_t DefaultMaxQueuedBytes = zel::size_t{256} << 20;
    static constexpr zel::size_t MaxConnections = 2048;

    /// @param port  AnyPort for any that is free, see getPort; NoListen for none
    /// @param onConnect  may be null; called with each new connection
    /// @param onDisconnect  may be null; called when a connection has ended, while the socket still lives
    /// @param protocolName  at most 30 characters: more end the process
    /// @throws NetError  if the server cannot listen there
    WebSocketServer(zel::uint16 port,
                    SocketCallback onConnect,
                    SocketCallback onDisconnect,
                    const zel::String& protocolName);
    /// Takes the first port of the range that can be had. None ends the process.
    WebSocketServer(PortRange* range,
                    SocketCallback onConnect,
                    SocketCallback onDisconnect,
                    const zel::String& protocolName);
    WebSocketServer(const WebSocketServer&) = delete;
    WebSocketServer& operator=(const WebSocketServer&) = delete;
    /// Ends all connections; no callback is called any more.
    ~WebSocketServer() override;

    /// Does what there is to do, without waiting for more; of what comes without end, some 20 ms.
    /// @param time  without effect
    /// @return whether anything happened; false also from within a callback, where it does nothing
    bool service(double time);
    /// Whether connections to this server are encrypted.
    [[nodiscard]] bool useSSL() const noexcept { return m_useSSL; }
    [[nodiscard]] zel::uint16 getPort() const noexcept { return m_port; }
    /// The open connections.
    [[nodiscard]] const zel::HashTable<lws*, zel::ref_ptr<WebSocket>>& getClientSockets() const noexcept {
        return m_clientSockets;
    }

    /// Queues the packet for every connection that is not anonymous.
    void send(WebSocket::Packet* packet);
    /// The same of a message: each connection gets a packet of its own, with its own number.
    void send(const StructuredMessage* message);

    /// Connects to another server, and waits for it, for 20 seconds at most unless setConnectLimit was
    /// called. Callbacks of this server's connections are called meanwhile.
    /// @param path  empty for "/"
    /// @param isAnonymous  see WebSocket::setAnonymous
    /// @return the connection, which the server holds
    /// @throws NetError  if nobody answers, or refuses; and from within a callback
    WebSocket* createConnection(const zel::String& host,
                                zel::uint16 port,
                                bool useSSL,
                                const zel::String& path,
                                const zel::String& protocol,
                                bool isAnonymous);

    /// Where servers listen that are made from now on: the name of a network device, or an IPv4 address.
    /// Empty for what ZEL_LISTEN_ADDRESS says, or else the loopback device.
    static void setListenAddress(const zel::String& address);

    /// Larger messages end their connection.
    void setMaxMessageSize(zel::size_t size) noexcept { m_maxMessageSize = size; }
    [[nodiscard]] zel::size_t getMaxMessageSize() const noexcept { return m_maxMessageSize; }
    /// A connection for which more bytes wait is ended: its peer is too slow. One packet may always wait.
    void setMaxQueuedBytes(zel::size_t size) noexcept { m_maxQueuedBytes = size; }
    [[nodiscard]] zel::size_t getMaxQueuedBytes() const noexcept { return m_maxQueuedBytes; }
    /// How long createConnection waits.
    void setConnectLimit(std::chrono::milliseconds limit) noexcept { m_connectLimit = limit; }
    /// How a peer that has gone without a word is noticed: one that is silent for so long is asked for a sign
    /// of life, and its connection ends when there is still none later. 30 and 45 seconds unless they are
    /// set; both hold for a connection from its next sign of life on.
    /// @param ask  at least 1 second
    /// @param giveUp  above `ask`, at most 65,535 seconds; both since the last sign of life
    /// @throws std::runtime_error if they are not so
    void setIdleLimits(std::chrono::seconds ask, std::chrono::seconds giveUp);
    /// So many incoming connections may be open that are not authenticated; more are refused.
    void setMaxUnauthenticated(zel::size_t count) noexcept { m_maxUnauthenticated = count; }

    // What libwebsockets tells.

    /// The server of a context, or null.
    [[nodiscard]] static WebSocketServer* getServer(lws_context* context);
    /// The connection, or null.
    [[nodiscard]] WebSocket* getWebSocket(lws* handle) const;
    /// A connection that is known already ends the process.
    WebSocket* acceptNewClient(lws* handle);
    void connectionClosed(lws* handle);
    void connectionDestroyed(lws* handle);

private:
    friend class WebSocket;
    friend class SocketEventHandler;

    struct FreeMemory {
        void operator()(void* memory) const noexcept { std::free(memory); }
    };

    /// Recursive, and fair: it goes to those who wait ahead of the one who has just had it. Who serves in a
    /// loop would else take it again and again, while others wait to send.
    class Mutex {
    public:
        void lock() {
            const std::thread::id self = std::this_thread::get_id();
            // relaxed: only this thread itself writes its id there, and takes it away
            if (m_owner.load(std::memory_order_relaxed) != self) {
                const std::lock_guard turn(m_turn);
                m_mutex.lock();
                m_owner.store(self, std::memory_order_relaxed);
            }
            ++m_depth;
        }
        void unlock() {
            if (--m_depth != 0)
                return;
            m_owner.store({}, std::memory_order_relaxed);
            m_mutex.unlock();
        }

    private:
        std::mutex m_turn;  // no rank: held only by the one who waits next
        std::mutex m_mutex; // no rank: the program's callbacks run under it, and take any lock
        std::atomic<std::thread::id> m_owner{};
        int m_depth = 0; // of the owner
    };

    WebSocketServer(SocketCallback onConnect, SocketCallback onDisconnect, const zel::String& protocolName);
    void init(zel::uint16 port);
    [[nodiscard]] lws_context* makeContext(int port, const char* address, bool isSecure);
    [[nodiscard]] lws_context* contextForConnection(bool isSecure);
    void initProtocols();
    /// Whether one more may connect.
    [[nodiscard]] bool hasRoom() const;

    zel::uint16 m_port = NoListen;
    bool m_isInService = false;
    bool m_hasActivity = false;
    lws_context* m_context = nullptr;
    SocketCallback m_onConnect;
    SocketCallback m_onDisconnect;
    zel::HashTable<lws*, zel::ref_ptr<WebSocket>> m_clientSockets;
    lws* m_pendingConnection = nullptr;
    zel::String m_protocolName;
    std::unique_ptr<lws_protocols, FreeMemory> m_protocols;
    std::unique_ptr<lws_retry_bo, FreeMemory> m_idleLimits; // libwebsockets reads them as it goes
    bool m_useSSL = false;
    zel::size_t m_maxMessageSize = DefaultMaxMessageSize;
    zel::size_t m_maxQueuedBytes = DefaultMaxQueuedBytes;
    zel::size_t m_maxUnauthenticated = MaxConnections;
    std::chrono::steady_clock::time_point m_nextSignOfLife; // of sockets that are paused
    std::chrono::milliseconds m_connectLimit = std::chrono::seconds(20);
    lws_context* m_secureContext = nullptr; // of encrypted outgoing connections, from the first one on
    mutable Mutex m_mutex;
};

} // namespace zelNet
