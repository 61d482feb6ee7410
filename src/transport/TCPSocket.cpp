#include "Envelope.h"
#include "SystemCalls.h"
#include "threads/SignalBlock.h"

#include <zel/Exception.h>
#include <zel/String.h>
#include <zel/Verify.h>
#include <zelNet/Library.h>
#include <zelNet/NetError.h>
#include <zelNet/TCPSocket.h>

#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <climits>
#include <limits>
#include <vector>

namespace zelNet {

using zel::uint32;
using zel::uint64;
using zel::uint8;

namespace {

/// How long one wait of those takes that go on until they are done.
constexpr uint32 WaitMs = 1000;
constexpr uint64 MaxMessageSize = std::numeric_limits<uint32>::max();

iovec pieceOf(const void* data, zel::size_t size) {
    return {const_cast<void*>(data), size}; // NOLINT: only read
}

/// Runs a call that sends or receives until it has done so or failed, however often it must wait.
/// @param call  takes the flags of the system call
template <typename Call>
ssize_t waitFor(int descriptor, short event, const std::function<bool()>& mayWait, const Call& call) {
    const auto mustWait = [](ssize_t result) { return result < 0 && (errno == EAGAIN || errno == EINTR); };
    ssize_t result = call(MSG_DONTWAIT);
    if (!mustWait(result))
        return result;
    const zel::SignalBlock signalsWait;
    if (mayWait) {
        do {
            pollfd entry{descriptor, event, 0};
            if (pollFor(&entry, 1, TCPSocket::AskMs) == 0 && !mayWait())
                ZEL_THROW(NetError, "TCPSocket: nobody waits for the peer any more");
        } while (mustWait(result = call(MSG_DONTWAIT)));
        return result;
    }
    // A process that is stopped and goes on again is interrupted in spite of that.
    while (mustWait(result = call(0))) {
        pollfd entry{descriptor, event, 0};
        static_cast<void>(pollFor(&entry, 1, WaitMs)); // a failure is that of the next call too
    }
    return result;
}

/// Zero means that the peer has closed.
ssize_t requireBytes(ssize_t result, const char* failure, Socket* socket) {
    if (result <= 0)
        ZEL_THROW(NetError, failure, result == 0 ? socket : nullptr);
    return result;
}

ssize_t requireSent(ssize_t result, Socket* socket) {
    return requireBytes(result, "TCPSocket::send() failed.", socket);
}
ssize_t requireReceived(ssize_t result, Socket* socket) {
    return requireBytes(result, "TCPSocket::recv() failed", socket);
}

/// For both directions.
void requireOpen(const Socket* socket) {
    (void)Library::instance();
    if (!socket->isValid())
        ZEL_THROW(NetError, "TCPSocket::send(): socket is not opened");
}

/// Whether both ends are one socket: where nobody listens at a port that the system hands out, it may give
/// the same port to the socket that connects, which then has found itself.
bool isItsOwnPeer(int descriptor) {
    sockaddr_in here{};
    sockaddr_in there{};
    socklen_t hereSize = sizeof(here);
    socklen_t thereSize = sizeof(there);
    return ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&here), &hereSize) == 0 &&
           ::getpeername(descriptor, reinterpret_cast<sockaddr*>(&there), &thereSize) == 0 &&
           here.sin_port == there.sin_port && here.sin_addr.s_addr == there.sin_addr.s_addr;
}

/// @return 0, or the reason why not
int connectTo(int descriptor, const IPAddress& peer) {
    const sockaddr_in remote = toSystem(peer);
    if (::connect(descriptor, reinterpret_cast<const sockaddr*>(&remote), sizeof(remote)) == 0)
        return 0;
    if (errno != EINTR)
        return errno;
    // The system goes on to connect.
    pollfd entry{descriptor, POLLOUT, 0};
    int ready = 0;
    while (ready == 0 || (ready < 0 && errno == EINTR))
        ready = pollFor(&entry, 1, WaitMs);
    int reason = 0;
    socklen_t size = sizeof(reason);
    return ::getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &reason, &size) == 0 ? reason : errno;
}

} // namespace

TCPSocket::~TCPSocket() = default;

void TCPSocket::open(const IPAddress& peer, bool disableNagle) {
    (void)Library::instance();
    if (isValid())
        ZEL_THROW(NetError, "TCPSocket::open(): socket already opened");
    m_socket = openDescriptor(SOCK_STREAM);
    if (!isValid())
        ZEL_THROW(NetError, "TCPSocket::open(): Couldn't create socket");
    int reason = connectTo(m_socket, peer);
    if (reason == 0 && isItsOwnPeer(m_socket))
        reason = ECONNREFUSED;
    if (reason != 0) {
        close();
        if (reason == ETIMEDOUT || reason == ECONNREFUSED || reason == ENETUNREACH)
            ZEL_THROW(TimeoutConnectError, "TCPSocket::open(): Timeout waiting for remote host.");
        ZEL_THROW(NetError,
                  zel::String::format("TCPSocket::open(): Error connecting to remote host (%d)", reason),
                  this);
    }
    address = peer;
    if (disableNagle)
        disableNaggle();
    inputReady = false;
}

void TCPSocket::disableNaggle() {
    (void)Library::instance();
    if (!isValid())
        ZEL_THROW(NetError, "TCPSocket::disableNaggle(): socket is not opened");
    switchOn(m_socket, IPPROTO_TCP, TCP_NODELAY, "TCP_NODELAY");
}

uint32 TCPSocket::send(const uint8* data, uint32 size) {
    outputReady = false;
    requireOpen(this);
    const ssize_t sent = callRemembering([&] { return ::send(m_socket, data, size, 0); });
    return static_cast<uint32>(requireSent(sent, this));
}

zel::size_t TCPSocket::recv(uint8* data, zel::size_t size) {
    inputReady = false;
    requireOpen(this);
    const ssize_t received = callRemembering([&] { return ::recv(m_socket, data, size, 0); });
    return static_cast<zel::size_t>(requireReceived(received, this));
}

void TCPSocket::sendBlocking(const uint8* data, uint32 size) {
    iovec piece = pieceOf(data, size);
    sendPieces(&piece, 1);
}

void TCPSocket::sendPieces(iovec* pieces, zel::size_t numPieces) {
    const iovec* const end = pieces + numPieces;
    uint64 left = 0;
    for (const iovec* piece = pieces; piece != end; ++piece)
        left += piece->iov_len;
    if (left == 0)
        return;
    outputReady = false;
    requireOpen(this);
    for (;;) {
        msghdr header{};
        header.msg_iov = pieces;
        header.msg_iovlen = std::min<zel::size_t>(static_cast<zel::size_t>(end - pieces), IOV_MAX);
        const ssize_t result = waitFor(
            m_socket, POLLOUT, m_mayWait, [&](int flags) { return ::sendmsg(m_socket, &header, flags); });
        auto sent = static_cast<zel::size_t>(requireSent(result, this));
        left -= sent;
        if (left == 0)
            return;
        for (; sent >= pieces->iov_len; ++pieces)
            sent -= pieces->iov_len;
        pieces->iov_base = static_cast<char*>(pieces->iov_base) + sent;
        pieces->iov_len -= sent;
    }
}

void TCPSocket::sendBlocking(const iovec* pieces, zel::size_t numPieces) {
    std::vector<iovec> left(pieces, pieces + numPieces);
    sendPieces(left.data(), left.size());
}

void TCPSocket::recvBlocking(uint8* data, uint32 size) {
    if (size == 0)
        return;
    inputReady = false;
    requireOpen(this);
    while (size != 0) {
        const ssize_t result = waitFor(
            m_socket, POLLIN, m_mayWait, [&](int flags) { return ::recv(m_socket, data, size, flags); });
        const auto received = static_cast<uint32>(requireReceived(result, this));
        data += received;
        size -= received;
    }
}

void TCPSocket::sendBlocking(const StructuredMessage* message) {
    const std::string json = writeJsonLine(message->getHeader());
    const zel::String& uri = message->getUri();
    const zelData::BinaryData* payload = message->getBinarySegment();
    const uint64 payloadSize = payload == nullptr ? 0 : payload->getSize();
    constexpr zel::size_t PreHeaderSize = sizeof(StructuredMessage::PreHeader);
    const uint64 textsEnd = PreHeaderSize + uri.size() + json.size();
    const uint64 payloadOffset = payloadSize == 0 ? 0 : payloadOffsetBehind(textsEnd);
    if (textsEnd > MaxMessageSize || payloadSize > MaxMessageSize - payloadOffset)
        ZEL_THROW(NetError, "TCPSocket::sendBlocking(): the message is larger than 4 GiB");

    StructuredMessage::PreHeader numbers;
    numbers.messageId = 0;
    numbers.responseId = 0;
    numbers.uriSize = static_cast<uint32>(uri.size());
    numbers.headerSize = static_cast<uint32>(json.size());
    numbers.payloadOffset = static_cast<uint32>(payloadOffset);
    numbers.payloadSize = static_cast<uint32>(payloadSize);
    uint8 preHeader[PreHeaderSize];
    numbers.write(preHeader);

    static constexpr uint8 padding[32] = {};
    // Without the size of the URI, see the header.
    const uint64 padSize = payloadSize == 0 ? 0 : payloadOffset - PreHeaderSize - json.size();
    zelVerify(padSize <= 32);
    iovec pieces[] = {pieceOf(preHeader, PreHeaderSize),
                      pieceOf(uri.data(), uri.size()),
                      pieceOf(json.data(), json.size()),
                      pieceOf(padding, padSize),
                      pieceOf(payload == nullptr ? nullptr : payload->getData(), payloadSize)};
    sendPieces(pieces, std::size(pieces));
}

} // namespace zelNet
