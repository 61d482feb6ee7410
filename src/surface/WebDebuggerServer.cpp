#include "surface/HttpRules.h"
#include "surface/StaticFileHandler.h"
#include "threads/SignalBlock.h"

#include <zel/Log.h>
#include <zelIO/Environment.h>
#include <zelIO/FileSystem.h>
#include <zelNet/WebDebuggerServer.h>

#include <arpa/inet.h>
#include <netdb.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <ctime>
#include <exception>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <mutex>
#include <utility>
#include <vector>

namespace zelNet::zelWebServer {

namespace {

namespace fs = std::filesystem;

constexpr auto StartLimit = std::chrono::seconds(2);

void sleepMilliseconds(long milliseconds) {
    timespec rest{0, milliseconds * 1'000'000};
    while (nanosleep(&rest, &rest) == -1 && errno == EINTR) {
    }
}

/// Called ahead of all that civetweb does with a request.
int beginRequest(mg_connection* connection) {
    const auto* const server = static_cast<const CivetServer*>(mg_get_user_data(mg_get_context(connection)));
    if (const int status =
            refuseAhead(connection, *static_cast<const std::atomic<bool>*>(server->getUserContext())))
        return status;
    if (!comesFromForeignPage(connection))
        return 0;
    mg_send_http_error(connection,
                       403,
                       "Rejecting non-local request from client%s",
                       mg_get_request_info(connection)->remote_addr);
    return 403;
}

bool isLoopback(const in_addr& address) {
    return ntohl(address.s_addr) >> 24 == 127;
}

const in_addr& addressOf(const addrinfo& info) {
    return reinterpret_cast<const sockaddr_in*>(info.ai_addr)->sin_addr;
}

/// What getLocalIP says; empty where nothing was found, which has been told then.
std::string findLocalIP() {
    char name[256] = {};
    if (gethostname(name, sizeof(name) - 1) != 0) {
        ZEL_LOG_WARNING("[WebDebuggerServer] gethostname failed");
        return {};
    }
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo* found = nullptr;
    if (const int error = getaddrinfo(name, nullptr, &hints, &found); error != 0) {
        ZEL_LOG_WARNING("[WebDebuggerServer] getaddrinfo failed with error: " << gai_strerror(error));
        return {};
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> results(found, &freeaddrinfo);
    if (!results) {
        ZEL_LOG_WARNING("[WebDebuggerServer] getaddrinfo returned no results");
        return {};
    }
    const addrinfo* chosen = results.get();
    while (chosen != nullptr && isLoopback(addressOf(*chosen)))
        chosen = chosen->ai_next;
    char text[INET_ADDRSTRLEN] = {};
    const in_addr& address = addressOf(chosen == nullptr ? *results : *chosen);
    return inet_ntop(AF_INET, &address, text, sizeof(text)) == nullptr ? "" : text;
}

} // namespace

WebDebuggerServer::WebDebuggerServer(int port, const std::string& documentRoot)
    : m_port(port), m_documentRoot(documentRoot) {}

WebDebuggerServer::~WebDebuggerServer() {
    stop();
    join();
}

bool WebDebuggerServer::findDocumentRoot() {
    if (m_documentRoot.empty()) {
        const zel::String page = zelIO::Environment::instance()->findComponent("../WebDebugger/index.html");
        if (page.empty()) {
            ZEL_LOG_WARNING("Unable to start WebDebuggerServer, could not locate index.html");
            return false;
        }
        m_documentRoot = zelIO::FileSystem::getPath(page);
    }
    std::error_code error;
    if (!fs::exists(m_documentRoot, error)) {
        ZEL_LOG_WARNING(
            "Unable to start WebDebuggerServer, specified directory does not exist: " << m_documentRoot);
        return false;
    }
    if (!fs::is_directory(m_documentRoot, error)) {
        ZEL_LOG_WARNING(
            "Unable to start WebDebuggerServer, specified path is not a directory: " << m_documentRoot);
        return false;
    }
    return true;
}

void WebDebuggerServer::startThread() {
    const std::lock_guard lock(m_mutex);
    if (m_isRunning || m_thread.joinable())
        return;
    m_isStopRequested = false;
    const zel::SignalBlock signalsWait; // for the thread and those of civetweb, which take it over
    m_thread = std::thread(&WebDebuggerServer::serverThreadFunc, this);
}

bool WebDebuggerServer::start() {
    if (!findDocumentRoot())
        return false;
    startThread();
    const auto end = std::chrono::steady_clock::now() + StartLimit;
    do {
        {
            const std::lock_guard lock(m_mutex);
            if (m_isRunning && m_port > 0)
                return true;
        }
        sleepMilliseconds(10);
    } while (std::chrono::steady_clock::now() < end);
    if (m_isRunning)
        ZEL_LOG_WARNING("Failed to start server - port not assigned after timeout");
    else
        ZEL_LOG_WARNING("Failed to start server - server not running after timeout");
    return false;
}

void WebDebuggerServer::stop() noexcept {
    m_isStopRequested = true;
}

void WebDebuggerServer::join() {
    // Out of the member first: the thread takes the mutex.
    std::thread ending;
    {
        const std::lock_guard lock(m_mutex);
        ending.swap(m_thread);
    }
    if (ending.joinable())
        ending.join();
}

int WebDebuggerServer::getPort() const {
    const std::lock_guard lock(m_mutex);
    return m_port;
}

void WebDebuggerServer::serverThreadFunc() {
    try {
        serve();
    } catch (const CivetException& error) {
        std::cerr << "WebDebuggerServer exception: " << error.what() << std::endl;
    } catch (const std::exception& error) {
        std::cerr << "WebDebuggerServer standard exception: " << error.what() << std::endl;
    } catch (...) {
        std::cerr << "WebDebuggerServer unknown exception" << std::endl;
    }
    m_isRunning = false;
}

void WebDebuggerServer::serve() {
    static StaticFileHandler s_handler;
    std::vector<std::string> options{"document_root",
                                     m_documentRoot,
                                     "listening_ports",
                                     "0.0.0.0:" + std::to_string(getPort()),
                                     "index_files",
                                     "index.html",
                                     "enable_keep_alive",
                                     "yes",
                                     "tcp_nodelay",
                                     "1"};
    options.insert(options.end(), std::begin(CommonOptions), std::end(CommonOptions));
    CivetCallbacks callbacks;
    callbacks.begin_request = &beginRequest;
    auto server = std::make_unique<CivetServer>(options, &callbacks, &m_isRunning);
    server->addHandler("/", s_handler);
    const std::vector<int> ports = server->getListeningPorts();
    if (ports.empty())
        throw CivetException("Server started but no listening ports found");
    {
        const std::lock_guard lock(m_mutex);
        m_server = std::move(server);
        m_port = ports.front();
        m_isRunning = true;
    }
    while (!m_isStopRequested)
        sleepMilliseconds(100);
    {
        const ListenerWaker waker(static_cast<zel::uint16>(ports.front()));
        m_server->close();
    }
    const std::lock_guard lock(m_mutex);
    m_server = nullptr;
}

std::string WebDebuggerServer::getLocalIP() {
    std::string address;
    try {
        address = findLocalIP();
    } catch (const std::exception& error) {
        ZEL_LOG_WARNING("[WebDebuggerServer] Exception in getLocalIP: " << error.what());
    } catch (...) {
        ZEL_LOG_WARNING("[WebDebuggerServer] Unknown exception in getLocalIP");
    }
    return address.empty() ? "127.0.0.1" : address;
}

} // namespace zelNet::zelWebServer
