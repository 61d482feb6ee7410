// Messages through TCP on the loopback, from one thread to another, beside plain send and recv of the same
// bytes.
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/BinaryData.h>
#include <zelNet/IPAddress.h>
#include <zelNet/NetError.h>
#include <zelNet/PortRange.h>
#include <zelNet/StructuredMessage.h>
#include <zelNet/TCPServerSocket.h>
#include <zelNet/TCPSocket.h>

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <json/value.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <thread>
#include <vector>

namespace {

using zel::uint32;
using zel::uint8;
using zelData::BinaryData;
using zelNet::IPAddress;
using zelNet::StructuredMessage;
using zelNet::TCPSocket;

constexpr uint32 Loopback = 0x0100007F;

void require(bool condition) {
    if (!condition)
        std::abort();
}

/// How many messages of a payload go between two answers of the receiver.
int64_t batchOf(int64_t payloadSize) {
    return payloadSize > 1'000'000 ? 4 : 2000;
}

StructuredMessage* makeMessage(int64_t payloadSize) {
    Json::Value header;
    header["index"] = 12345;
    header["name"] = "positions";
    const zel::ref_ptr<BinaryData> payload(new BinaryData(static_cast<std::size_t>(payloadSize)));
    std::fill_n(payload->getData(), payload->getSize(), uint8{7});
    return new StructuredMessage("", header, payload.get());
}

void finish(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations() * batchOf(state.range(0)));
    state.SetBytesProcessed(state.items_processed() * state.range(0));
}

// Ours

/// Receives messages until the peer closes, and answers each batch.
void receiveMessages(TCPSocket& socket, int64_t batch) {
    constexpr uint32 PreHeaderSize = sizeof(StructuredMessage::PreHeader);
    std::vector<uint8> bytes(PreHeaderSize);
    try {
        for (int64_t n = 1;; ++n) {
            socket.recvBlocking(bytes.data(), PreHeaderSize);
            const auto preHeader = StructuredMessage::PreHeader::read(bytes.data());
            const uint32 size = preHeader.payloadOffset + preHeader.payloadSize;
            if (bytes.size() < size)
                bytes.resize(size);
            socket.recvBlocking(bytes.data() + PreHeaderSize, size - PreHeaderSize);
            const zel::ref_ptr<StructuredMessage> message(
                StructuredMessage::parse(bytes.data(), size, false));
            benchmark::DoNotOptimize(message->getBinarySegment()->getData());
            if (n % batch == 0)
                socket.sendBlocking(bytes.data(), 1);
        }
    } catch (const zelNet::NetError&) { // the sender has finished
    }
}

void zelMessages(benchmark::State& state) {
    zelCore::init();
    zelNet::TCPServerSocket server;
    const zel::uint16 port = zelNet::getAvailablePort();
    server.open(port, true);
    TCPSocket sender;
    sender.open(IPAddress(Loopback, port), true);
    const zel::ref_ptr<TCPSocket> receiver(server.accept());
    const int64_t batch = batchOf(state.range(0));
    std::thread thread([&] { receiveMessages(*receiver, batch); });
    {
        const zel::ref_ptr<StructuredMessage> message(makeMessage(state.range(0)));
        uint8 answer = 0;
        for (auto _ : state) {
            for (int64_t n = 0; n < batch; ++n)
                sender.sendBlocking(message.get());
            sender.recvBlocking(&answer, 1);
        }
    }
    sender.close();
    thread.join();
    finish(state);
}

// Theirs

void sendAll(int descriptor, const uint8* data, std::size_t size) {
    while (size != 0) {
        const ssize_t n = ::send(descriptor, data, size, 0);
        require(n > 0);
        data += n;
        size -= static_cast<std::size_t>(n);
    }
}

bool recvAll(int descriptor, uint8* data, std::size_t size) {
    while (size != 0) {
        const ssize_t n = ::recv(descriptor, data, size, 0);
        if (n <= 0)
            return false;
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

/// The bytes of one of our messages: its pre-header and its header fill 64 bytes.
void plainBytes(benchmark::State& state) {
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = Loopback;
    socklen_t addressSize = sizeof(address);
    require(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0);
    require(::listen(listener, 1) == 0);
    require(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &addressSize) == 0);
    const int sender = ::socket(AF_INET, SOCK_STREAM, 0);
    require(::connect(sender, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0);
    const int receiver = ::accept(listener, nullptr, nullptr);
    for (const int descriptor : {sender, receiver}) {
        const int on = 1;
        require(::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) == 0);
    }
    const int64_t batch = batchOf(state.range(0));
    const std::size_t size = 64 + static_cast<std::size_t>(state.range(0));
    std::thread thread([&] {
        std::vector<uint8> bytes(size);
        for (int64_t n = 1; recvAll(receiver, bytes.data(), size); ++n)
            if (n % batch == 0)
                sendAll(receiver, bytes.data(), 1);
    });
    const std::vector<uint8> bytes(size, 7);
    uint8 answer = 0;
    for (auto _ : state) {
        for (int64_t n = 0; n < batch; ++n)
            sendAll(sender, bytes.data(), size);
        require(recvAll(sender, &answer, 1));
    }
    ::shutdown(sender, SHUT_RDWR);
    thread.join();
    for (const int descriptor : {sender, receiver, listener})
        ::close(descriptor);
    finish(state);
}

BENCHMARK(zelMessages)
    ->Name("BM_TcpMessages/zel")
    ->Arg(200)
    ->Arg(8 << 20)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(plainBytes)
    ->Name("BM_TcpMessages/send_recv")
    ->Arg(200)
    ->Arg(8 << 20)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
