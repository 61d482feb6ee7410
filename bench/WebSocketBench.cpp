#include <zelCore/zelCore.h>
#include <zelData/Buffer.h>
#include <zelData/Frame.h>
#include <zelData/Type.h>
#include <zelNet/ControlChannel.h>
#include <zelNet/TcpSocketFrameReader.h>
#include <zelNet/TcpSocketFrameWriter.h>
#include <zelNet/WebSocketServer.h>

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <json/value.h>
#include <libwebsockets.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

// Servers beside bare libwebsockets. The clients are plain sockets that know what to expect, so that they
// take next to no time; the server runs on a thread of its own.

namespace {

using zel::ref_ptr;
using zel::uint8;
using zelNet::StructuredMessage;
using zelNet::WebSocket;
using zelNet::WebSocketServer;

constexpr const char* Protocol = "zel_stream";

// Clients

std::string frameOf(const std::string& payload) {
    std::string bytes("\x82", 1);
    if (payload.size() < 126) {
        bytes += static_cast<char>(0x80 | payload.size());
    } else {
        bytes += static_cast<char>(0x80 | 126);
        bytes += static_cast<char>(payload.size() >> 8);
        bytes += static_cast<char>(payload.size());
    }
    return bytes + std::string(4, '\0') + payload; // under a mask of zeros
}

class Client {
public:
    explicit Client(int port) : m_socket(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        if (::connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
            std::abort();
        const int on = 1;
        ::setsockopt(m_socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        send("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
             "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n"
             "Sec-WebSocket-Protocol: zel_stream\r\n\r\n");
        for (std::string answer; !answer.ends_with("\r\n\r\n");) {
            char c = 0;
            if (::recv(m_socket, &c, 1, 0) != 1)
                std::abort();
            answer += c;
        }
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() { ::close(m_socket); }

    void send(const std::string& bytes) const {
        for (std::size_t sent = 0; sent < bytes.size();) {
            const ssize_t n = ::send(m_socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (n <= 0)
                std::abort();
            sent += static_cast<std::size_t>(n);
        }
    }
    std::size_t receiveSome(void* block, std::size_t size) const {
        const ssize_t n = ::recv(m_socket, block, size, 0);
        if (n <= 0)
            std::abort();
        return static_cast<std::size_t>(n);
    }
    /// Counts the messages that come, whatever they hold.
    void receiveMessages(int count) {
        while (count > 0) {
            while (count > 0 && takeMessage())
                --count;
            if (count == 0)
                return;
            char block[65536];
            m_received.append(block, receiveSome(block, sizeof(block)));
        }
    }

private:
    bool takeMessage() {
        const auto left = m_received.size() - m_taken;
        if (left < 4)
            return compact();
        const auto byte = [this](std::size_t i) {
            return static_cast<unsigned char>(m_received[m_taken + i]);
        };
        const std::size_t length = byte(1) == 126 ? 4U + byte(2) * 256U + byte(3) : 2U + byte(1);
        if (left < length)
            return compact();
        m_taken += length;
        return true;
    }
    bool compact() {
        m_received.erase(0, m_taken);
        m_taken = 0;
        return false;
    }

    int m_socket;
    std::string m_received;
    std::size_t m_taken = 0;
};

/// Serves on a thread while it lives.
class Serving {
public:
    explicit Serving(std::function<void()> service)
        : m_thread([this, service = std::move(service)] {
            while (!m_isDone.load(std::memory_order_relaxed))
                service();
        }) {}
    ~Serving() {
        m_isDone = true;
        m_thread.join();
    }

private:
    std::atomic<bool> m_isDone{false};
    std::thread m_thread;
};

// Bare libwebsockets: echoes what comes, or broadcasts a block in fragments of 256 KiB.

struct Bare {
    struct Session {
        std::deque<std::string>* queue;
        std::size_t written;
        std::size_t numSent;
    };

    explicit Bare(std::string blockToSend = "") : block(std::string(LWS_PRE, '\0') + std::move(blockToSend)) {
        protocols[0].name = Protocol;
        protocols[0].callback = &Bare::callback;
        protocols[0].per_session_data_size = sizeof(Session);
        protocols[0].rx_buffer_size = 1 << 20;
        lws_context_creation_info info{};
        info.iface = "127.0.0.1";
        info.protocols = protocols;
        info.gid = info.uid = -1;
        info.pt_serv_buf_size = 1 << 20;
        info.options = LWS_SERVER_OPTION_DISABLE_IPV6;
        info.user = this;
        lws_set_log_level(0, nullptr);
        context = lws_create_context(&info);
        port = lws_get_vhost_listen_port(lws_get_vhost_by_name(context, "default"));
    }
    ~Bare() { lws_context_destroy(context); }
    void service() {
        if (numToSend != numAsked) {
            numAsked = numToSend.load();
            lws_callback_on_writable_all_protocol(context, &protocols[0]);
        }
        lws_service(context, -1);
    }

    static int callback(lws* wsi, lws_callback_reasons reason, void* user, void* data, std::size_t size) {
        auto* session = static_cast<Session*>(user);
        auto* self = static_cast<Bare*>(lws_context_user(lws_get_context(wsi)));
        switch (reason) {
        case LWS_CALLBACK_ESTABLISHED:
            *session = {new std::deque<std::string>, 0, 0};
            break;
        case LWS_CALLBACK_CLOSED:
            delete session->queue;
            break;
        case LWS_CALLBACK_RECEIVE:
            session->queue->push_back(std::string(LWS_PRE, '\0') +
                                      std::string(static_cast<char*>(data), size));
            lws_callback_on_writable(wsi);
            break;
        case LWS_CALLBACK_SERVER_WRITEABLE:
            self->write(wsi, *session);
            break;
        default:
            break;
        }
        return 0;
    }
    void write(lws* wsi, Session& session) {
        if (!session.queue->empty()) {
            std::string& message = session.queue->front();
            lws_write(wsi,
                      reinterpret_cast<uint8*>(message.data()) + LWS_PRE,
                      message.size() - LWS_PRE,
                      LWS_WRITE_BINARY);
            session.queue->pop_front();
            lws_callback_on_writable(wsi);
            return;
        }
        if (session.numSent >= numToSend)
            return;
        constexpr std::size_t Piece = 256 << 10;
        const std::size_t total = block.size() - LWS_PRE;
        const std::size_t size = std::min(Piece, total - session.written);
        int flags = session.written == 0 ? LWS_WRITE_BINARY : LWS_WRITE_CONTINUATION;
        if (session.written + size < total)
            flags |= LWS_WRITE_NO_FIN;
        std::memcpy(scratch.data() + LWS_PRE, block.data() + LWS_PRE + session.written, size);
        lws_write(wsi, scratch.data() + LWS_PRE, size, static_cast<lws_write_protocol>(flags));
        session.written += size;
        if (session.written == total) {
            session.written = 0;
            ++session.numSent;
        }
        lws_callback_on_writable(wsi);
    }

    lws_protocols protocols[2] = {};
    lws_context* context = nullptr;
    int port = 0;
    std::string block;
    std::vector<uint8> scratch = std::vector<uint8>(LWS_PRE + (256 << 10));
    std::atomic<std::size_t> numToSend{0};
    std::size_t numAsked = 0;
};

// Requests

constexpr int InFlight = 64;

std::string requestOf(zel::uint32 id) {
    const std::string uri = "Echo";
    const std::string json = "{\"text\":\"" + std::string(160, 'x') + "\"}";
    StructuredMessage::PreHeader numbers;
    numbers.messageId = id;
    numbers.uriSize = static_cast<zel::uint32>(uri.size());
    numbers.headerSize = static_cast<zel::uint32>(json.size());
    std::string bytes(24, '\0');
    numbers.write(reinterpret_cast<uint8*>(bytes.data()));
    return bytes + uri + json;
}

void request(benchmark::State& state, int port) {
    Client client(port);
    std::string requests;
    for (zel::uint32 i = 1; i <= InFlight; ++i)
        requests += frameOf(requestOf(i));
    for (auto _ : state) {
        client.send(requests);
        client.receiveMessages(InFlight);
    }
    state.SetItemsProcessed(state.iterations() * InFlight);
}

void Request_Bare(benchmark::State& state) {
    Bare bare;
    const Serving serving([&] { bare.service(); });
    request(state, bare.port);
}

void Request_Ours(benchmark::State& state) {
    zelCore::init();
    {
        WebSocketServer server(
            zelNet::AnyPort,
            [](WebSocket* socket) {
                socket->setReceiveCallback([](WebSocket* sender, uint8* data, zel::size_t size) {
                    const ref_ptr<WebSocket::Packet> packet(
                        new WebSocket::Packet(size, WebSocket::Packet::ContentType::Binary));
                    std::memcpy(packet->getPayload(), data, size);
                    sender->send(packet.get());
                });
            },
            {},
            Protocol);
        const Serving serving([&] { server.service(0); });
        request(state, server.getPort());
    }
    zelCore::shutdown();
}

void Request_OurChannel(benchmark::State& state) {
    zelCore::init();
    {
        WebSocket::ControlChannel channel(zelNet::AnyPort, "");
        channel.registerMessageHandler("Echo", [](auto*, WebSocket* socket, StructuredMessage* message) {
            const ref_ptr<StructuredMessage> response(message->createResponse());
            response->setHeader(message->getHeader());
            socket->send(response.get());
        });
        const Serving serving([&] { channel.service(0); });
        request(state, channel.getPort());
    }
    zelCore::shutdown();
}
BENCHMARK(Request_Bare)->UseRealTime();
BENCHMARK(Request_Ours)->UseRealTime();
BENCHMARK(Request_OurChannel)->UseRealTime();

// Broadcasts

constexpr std::size_t BlockSize = 8'000'000;
/// As both send it: 31 fragments, of which the last one is small.
constexpr std::size_t NumFragments = (BlockSize + (256 << 10) - 1) / (256 << 10);
constexpr std::size_t BytesOnTheWire = BlockSize + 10 * NumFragments;

void broadcast(benchmark::State& state, int port, const std::function<void()>& send) {
    const auto numReaders = static_cast<std::size_t>(state.range(0));
    std::vector<std::unique_ptr<Client>> clients;
    for (std::size_t i = 0; i < numReaders; ++i)
        clients.push_back(std::make_unique<Client>(port));
    std::vector<char> block(1 << 20);
    for (auto _ : state) {
        send();
        // One reader after the other would let the first ones wait, so all in turn.
        std::vector<std::size_t> left(numReaders, BytesOnTheWire);
        for (std::size_t numLeft = numReaders; numLeft != 0;)
            for (std::size_t i = 0; i < numReaders; ++i) {
                if (left[i] == 0)
                    continue;
                left[i] -= clients[i]->receiveSome(block.data(), std::min(left[i], block.size()));
                numLeft -= left[i] == 0 ? 1U : 0U;
            }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(numReaders * BlockSize));
}

void Broadcast_Bare(benchmark::State& state) {
    Bare bare(std::string(BlockSize, 'x'));
    const Serving serving([&] { bare.service(); });
    broadcast(state, bare.port, [&] { ++bare.numToSend; });
}

void Broadcast_Ours(benchmark::State& state) {
    zelCore::init();
    {
        WebSocketServer server(zelNet::AnyPort, {}, {}, Protocol);
        const ref_ptr<WebSocket::Packet> packet(
            new WebSocket::Packet(BlockSize, WebSocket::Packet::ContentType::Binary));
        std::memset(packet->getPayload(), 'x', BlockSize);
        const Serving serving([&] { server.service(0); });
        broadcast(state, server.getPort(), [&] { server.send(packet.get()); });
    }
    zelCore::shutdown();
}
BENCHMARK(Broadcast_Bare)->Arg(1)->Arg(8)->UseRealTime();
BENCHMARK(Broadcast_Ours)->Arg(1)->Arg(8)->UseRealTime();

// Frames over TCP

ref_ptr<zelData::Frame> makeFrame() {
    ref_ptr<zelData::Frame> frame(new zelData::Frame(0, 0, 0));
    for (int i = 0; i < 10; ++i) {
        const zel::Name name(("column" + std::to_string(i)).c_str());
        const ref_ptr<zelData::Buffer> buffer(new zelData::Buffer(name, zelData::getFormat("Real:64bit")));
        buffer->resize(95'000);
        frame->addBuffer(buffer.get(), name.c_str());
    }
    return frame;
}

void FrameTcp_Ours(benchmark::State& state) {
    zelCore::init();
    {
        zelNet::TcpSocketFrameWriter writer(zelNet::AnyPort);
        const auto frame = makeFrame();
        std::atomic<std::int64_t> numToSend{2}, numSent{0};
        const Serving serving([&] {
            if (numSent < numToSend) {
                writer.writeFrame(frame.get());
                numSent += writer.getNumClients() == 0 ? 0 : 1;
            }
        });
        zelNet::TcpSocketFrameReader reader(zelNet::IPAddress("127.0.0.1", writer.getPort()));
        for (int i = 0; i < 2; ++i)
            benchmark::DoNotOptimize(ref_ptr<zelData::Frame>(reader.readFrame()));
        for (auto _ : state) {
            ++numToSend;
            benchmark::DoNotOptimize(ref_ptr<zelData::Frame>(reader.readFrame()));
        }
    }
    state.SetBytesProcessed(state.iterations() * 7'600'000);
    zelCore::shutdown();
}

/// The same bytes in two calls, into memory that is reused.
void FrameTcp_Raw(benchmark::State& state) {
    int ends[2];
    const int server = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    if (::bind(server, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(server, 1) != 0 || ::getsockname(server, reinterpret_cast<sockaddr*>(&address), &size) != 0)
        std::abort();
    ends[0] = ::socket(AF_INET, SOCK_STREAM, 0);
    if (::connect(ends[0], reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
        std::abort();
    ends[1] = ::accept(server, nullptr, nullptr);
    ::close(server);
    const std::vector<char> source(7'600'000, 'x');
    std::vector<char> target(source.size());
    {
        std::atomic<std::int64_t> numToSend{0};
        std::int64_t numSent = 0;
        const Serving serving([&] {
            if (numSent < numToSend) {
                for (std::size_t sent = 0; sent < source.size();)
                    sent += static_cast<std::size_t>(
                        ::send(ends[0], source.data() + sent, source.size() - sent, MSG_NOSIGNAL));
                ++numSent;
            }
        });
        for (auto _ : state) {
            ++numToSend;
            for (std::size_t received = 0; received < target.size();)
                received += static_cast<std::size_t>(
                    ::recv(ends[1], target.data() + received, target.size() - received, 0));
        }
    }
    ::close(ends[0]);
    ::close(ends[1]);
    state.SetBytesProcessed(state.iterations() * 7'600'000);
}
BENCHMARK(FrameTcp_Raw)->UseRealTime();
BENCHMARK(FrameTcp_Ours)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
