#include <zel/Component.h>
#include <zelCore/zelCore.h>
#include <zelIO/RemoteCommandServer.h>

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <civetweb.h>
#include <json/value.h>
#include <json/writer.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <string>

// A GET of about 1 KB of JSON from one worker, beside bare civetweb. The answers of the command server end
// where the connection does, so each request has one of its own; what bare civetweb gains by keeping it is
// shown too.

namespace {

constexpr char Head[] = "HTTP/1.1 200 OK\r\nContent-Type: text/json\r\n\r\n";
constexpr int NumObjects = 18;

/// The tree whose JSON is asked for.
zel::ref_ptr<zel::Component> makeTree() {
    zel::ref_ptr<zel::Component> root(new zel::Component("root", zel::Component::ClassModel()));
    for (int i = 0; i < NumObjects; ++i)
        root->addObject(
            new zel::Component(("object" + std::to_string(i)).c_str(), zel::Component::ClassModel()));
    return root;
}

int connectTo(int port) {
    const int client = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    if (::connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
        std::abort();
    return client;
}

void sendRequest(int client, const std::string& uri) {
    const std::string request = "GET " + uri + " HTTP/1.1\r\nHost: localhost\r\n\r\n";
    if (::send(client, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size()))
        std::abort();
}

/// One request after the other, each through a connection of its own.
void get(benchmark::State& state, int port, const std::string& uri) {
    std::size_t size = 0;
    for (auto _ : state) {
        const int client = connectTo(port);
        sendRequest(client, uri);
        char block[4096];
        size = 0;
        for (ssize_t n = 0; (n = ::recv(client, block, sizeof(block), 0)) > 0;)
            size += static_cast<std::size_t>(n);
        ::close(client);
    }
    state.counters["bytes"] = static_cast<double>(size);
}

void HttpGet_Ours(benchmark::State& state) {
    zelCore::init();
    std::cout.setstate(std::ios::failbit); // the port
    {
        auto* const server = zelIO::RemoteCommandServer::instance();
        server->setSystemRoot(makeTree().get());
        if (!server->start(0, false))
            std::abort();
        get(state, server->getPort(), "/zelJournal/NavigationTree");
    }
    zelCore::shutdown();
    std::cout.clear();
}

// Bare civetweb, which answers with the same text.

int answerOnce(mg_connection* connection, void* text) {
    mg_printf(connection, "%s", Head);
    const auto& json = *static_cast<const std::string*>(text);
    mg_write(connection, json.data(), json.size());
    return 200;
}

int answerAndStay(mg_connection* connection, void* text) {
    const auto& json = *static_cast<const std::string*>(text);
    mg_printf(
        connection,
        "HTTP/1.1 200 OK\r\nContent-Type: text/json\r\nContent-Length: %zu\r\nConnection: keep-alive\r\n\r\n",
        json.size());
    mg_write(connection, json.data(), json.size());
    return 200;
}

struct Bare {
    Bare(mg_request_handler handler, const char* keepsAlive) {
        zelCore::init();
        Json::Value tree(Json::objectValue);
        makeTree()->buildNavigationTree(tree);
        text = Json::FastWriter().write(tree);
        zelCore::shutdown();
        const char* options[] = {"listening_ports",
                                 "0",
                                 "num_threads",
                                 "1",
                                 "enable_keep_alive",
                                 keepsAlive,
                                 "tcp_nodelay",
                                 "1",
                                 nullptr};
        context = mg_start(nullptr, nullptr, options);
        mg_set_request_handler(context, "/tree", handler, &text);
        mg_server_port actual{};
        mg_get_server_ports(context, 1, &actual);
        port = actual.port;
    }
    ~Bare() { mg_stop(context); }

    std::string text;
    mg_context* context;
    int port = 0;
};

void HttpGet_Bare(benchmark::State& state) {
    const Bare bare(&answerOnce, "no");
    get(state, bare.port, "/tree");
}

void HttpGet_BareKeepAlive(benchmark::State& state) {
    const Bare bare(&answerAndStay, "yes");
    const int client = connectTo(bare.port);
    for (auto _ : state) {
        sendRequest(client, "/tree");
        std::string answer;
        while (answer.size() < bare.text.size() || !answer.ends_with(bare.text)) {
            char block[4096];
            const ssize_t n = ::recv(client, block, sizeof(block), 0);
            if (n <= 0)
                std::abort();
            answer.append(block, static_cast<std::size_t>(n));
        }
    }
    ::close(client);
}

BENCHMARK(HttpGet_Bare)->Name("BM_HttpGet/civetweb")->UseRealTime();
BENCHMARK(HttpGet_Ours)->Name("BM_HttpGet/zel")->UseRealTime();
BENCHMARK(HttpGet_BareKeepAlive)->Name("BM_HttpGet/civetweb_keep_alive")->UseRealTime();

} // namespace

BENCHMARK_MAIN();
