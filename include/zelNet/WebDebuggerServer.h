#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/LockRank.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

class CivetServer;

namespace zelNet::zelWebServer {

/// Serves the files of one directory over HTTP, on a thread of its own: the web debugger. It has no data of
/// its own; the page talks to a control channel, whose port and token it is told behind the address:
///
///     WebDebuggerServer server(0, "");
///     if (server.start())
///         std::cout << "http://localhost:" << server.getPort() << "/#control=" << channel.getPort()
///                   << "&token=" << token << "\n";
///
/// It listens on all addresses of this machine, without encryption and without a token: whoever reaches the
/// port reads the files. What is not a file of the directory is not served, links out of it included; only
/// GET and HEAD are answered, and nothing that a page of another site asks for, see AllowedHosts.h. Clients
/// are served one after the other: one that sends no request, or takes nothing of its answer, is dropped
/// after 3 seconds; one that takes it slowly keeps the others waiting.
/// @threads `start`, `join` and destruction: one thread at a time; all else: any thread
class ZEL_CORE_API WebDebuggerServer {
public:
    /// @param port  0 for any that is free, see getPort
    /// @param documentRoot  empty for the directory of the component "../WebDebugger/index.html", which
    /// `start` looks for, see zelIO::Environment::findComponent
    WebDebuggerServer(int port, const std::string& documentRoot);
    WebDebuggerServer(const WebDebuggerServer&) = delete;
    WebDebuggerServer& operator=(const WebDebuggerServer&) = delete;
    /// Stops and joins.
    ~WebDebuggerServer();

    /// Starts the thread and waits until it listens, 2 seconds at most. Where it cannot, a warning tells why;
    /// what went wrong on the thread stands on std::cerr. After `stop`, or a start that failed, `join` comes
    /// first.
    /// @return whether the server runs; also if it did already
    bool start();
    /// Asks the thread to end, and does not wait for it.
    void stop() noexcept;
    /// Waits for the thread's end, if there is a thread.
    void join();

    [[nodiscard]] bool isRunning() const noexcept { return m_isRunning; }
    /// The port of the constructor; once the server has run, the one that it had, which it takes again.
    [[nodiscard]] int getPort() const;

    /// An IPv4 address by which this machine's name is known, where there is one that is not a loopback
    /// address; "127.0.0.1" if none can be found.
    [[nodiscard]] static std::string getLocalIP();

private:
    bool findDocumentRoot();
    void startThread();
    void serverThreadFunc();
    void serve();

    zel::int32 m_port;
    std::unique_ptr<CivetServer> m_server;
    std::thread m_thread;
    std::atomic<bool> m_isRunning{false};
    std::atomic<bool> m_isStopRequested{false};
    std::string m_documentRoot;
    /// Guards port, thread and server.
    mutable zel::RankedMutex<zel::LockRank::WebServer> m_mutex;
};

} // namespace zelNet::zelWebServer
