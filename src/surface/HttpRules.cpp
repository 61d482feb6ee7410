#include "surface/HttpRules.h"

#include "threads/SignalBlock.h"

#include <zelNet/AllowedHosts.h>

#include <arpa/inet.h>
#include <civetweb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <string_view>
#include <system_error>

namespace zelNet {

namespace fs = std::filesystem;

namespace {

std::string_view headerOf(const mg_connection* connection, const char* name) {
    const char* const value = mg_get_header(connection, name);
    return value == nullptr ? std::string_view() : std::string_view(value);
}

/// Connects to a port of this machine, and hangs up.
bool connectTo(zel::uint16 port) {
    const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    const bool isConnected =
        ::connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    ::close(client);
    return isConnected;
}

} // namespace

int refuseAhead(mg_connection* connection, bool isReady) {
    const std::string_view method = mg_get_request_info(connection)->request_method;
    if (method != "GET" && method != "HEAD") {
        mg_send_http_error(connection, 405, "%s", "Only GET and HEAD are allowed");
        return 405;
    }
    if (isReady)
        return 0;
    mg_send_http_error(connection, 503, "%s", "The server is starting");
    return 503;
}

ListenerWaker::ListenerWaker(zel::uint16 port) {
    const zel::SignalBlock signalsWait; // for the thread, which takes it over
    m_thread = std::thread([this, port] {
        // The first one may come ahead of the stop.
        while (!m_isDone && connectTo(port))
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    });
}

ListenerWaker::~ListenerWaker() {
    m_isDone = true;
    m_thread.join();
}

bool comesFromForeignPage(const mg_connection* connection) {
    const std::string_view host = headerOf(connection, "Host");
    return !isAllowedHost(host) || !isAllowedOrigin(headerOf(connection, "Origin"), host) ||
           headerOf(connection, "Sec-Fetch-Site") == "cross-site";
}

std::string decodedUri(const mg_connection* connection) {
    const mg_request_info& request = *mg_get_request_info(connection);
    const std::string_view local = request.local_uri == nullptr ? "" : request.local_uri;
    std::string uri(local.size() + 1, '\0');
    const int size = mg_url_decode(
        local.data(), static_cast<int>(local.size()), uri.data(), static_cast<int>(uri.size()), 0);
    uri.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return uri;
}

bool liesBelow(const fs::path& file, const fs::path& directory) {
    std::error_code error;
    const fs::path root = fs::canonical(directory, error);
    if (error)
        return false;
    const fs::path real = fs::weakly_canonical(file, error);
    return !error && std::mismatch(root.begin(), root.end(), real.begin(), real.end()).first == root.end();
}

fs::path findServedFile(const std::string& uri, const fs::path& root) {
    // The system would cut the name off at a NUL.
    if (uri.find('\0') != std::string::npos)
        return {};
    fs::path file = root / fs::path(uri).relative_path();
    std::error_code error;
    if (fs::is_directory(file, error))
        file /= "index.html";
    // A pipe would keep the only worker for ever.
    if (!liesBelow(file, root) || !fs::is_regular_file(file, error) || !std::ifstream(file))
        return {};
    return file;
}

} // namespace zelNet
