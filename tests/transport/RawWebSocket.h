#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <string>
#include <thread>

namespace zelTest {

/// A peer that writes the bytes of the WebSocket protocol by itself, and need not keep to it.
class RawWebSocket {
public:
    enum Opcode : unsigned char { Continuation = 0, Text = 1, Binary = 2, Close = 8, Ping = 9, Pong = 10 };

    /// A frame of the other side; without one, `isWhole` is false.
    struct Frame {
        bool isWhole = false;
        bool isFinal = false;
        unsigned char opcode = 0;
        std::string payload;
    };

    /// Connects to a port of this machine; nothing is sent yet.
    explicit RawWebSocket(std::uint16_t port) : m_socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port);
        EXPECT_EQ(::connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    }
    RawWebSocket(const RawWebSocket&) = delete;
    RawWebSocket& operator=(const RawWebSocket&) = delete;
    ~RawWebSocket() {
        if (m_socket >= 0)
            ::close(m_socket);
    }

    [[nodiscard]] int descriptor() const { return m_socket; }

    /// The request of a handshake. Lines of headers end in "\r\n".
    [[nodiscard]] static std::string handshake(const std::string& protocol,
                                               const std::string& host = "127.0.0.1",
                                               const std::string& moreHeaders = "") {
        return "GET / HTTP/1.1\r\nHost: " + host +
               "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Key: "
               "dGhlIHNhbXBsZSBub25jZQ==\r\n"
               "Sec-WebSocket-Version: 13\r\n" +
               (protocol.empty() ? std::string() : "Sec-WebSocket-Protocol: " + protocol + "\r\n") +
               moreHeaders + "\r\n";
    }

    /// A frame as a client sends it.
    /// @param announced  the length that it tells; -1 for the true one
    [[nodiscard]] static std::string
    frame(Opcode opcode, const std::string& payload, bool isFinal = true, std::int64_t announced = -1) {
        const std::uint64_t length = announced < 0 ? payload.size() : static_cast<std::uint64_t>(announced);
        std::string bytes(1, static_cast<char>((isFinal ? 0x80 : 0) | opcode));
        const auto append = [&](int numBytes) {
            for (int i = numBytes - 1; i >= 0; --i)
                bytes += static_cast<char>(length >> (8 * i));
        };
        if (length < 126) {
            bytes += static_cast<char>(0x80 | length);
        } else if (length < 65536) {
            bytes += static_cast<char>(0x80 | 126);
            append(2);
        } else {
            bytes += static_cast<char>(0x80 | 127);
            append(8);
        }
        const char mask[4] = {0x12, 0x34, 0x56, 0x78};
        bytes.append(mask, 4);
        for (std::size_t i = 0; i < payload.size(); ++i)
            bytes += static_cast<char>(payload[i] ^ mask[i % 4]);
        return bytes;
    }

    /// Sends all bytes.
    /// @param meanwhile  called while the other side does not take them
    /// @return whether it took all
    bool send(
        const std::string& bytes, const std::function<void()>& meanwhile = [] {}) {
        std::size_t sent = 0;
        for (int round = 0; sent < bytes.size() && round < MaxRounds; ++round) {
            const ssize_t n =
                ::send(m_socket, bytes.data() + sent, bytes.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
            if (n > 0)
                sent += static_cast<std::size_t>(n);
            else if (errno != EAGAIN)
                return false;
            meanwhile();
        }
        return sent == bytes.size();
    }

    /// Takes what has come.
    /// @return false once the other side has closed
    bool receive() {
        char block[65536];
        for (;;) {
            const ssize_t n = ::recv(m_socket, block, sizeof(block), MSG_DONTWAIT);
            if (n > 0)
                m_received.append(block, static_cast<std::size_t>(n));
            else
                return n < 0 && errno == EAGAIN;
        }
    }
    /// What has come and was not taken yet.
    [[nodiscard]] const std::string& received() const { return m_received; }

    /// The answer to the handshake, up to its empty line, if it is there.
    [[nodiscard]] std::string takeAnswer() {
        receive();
        const std::size_t end = m_received.find("\r\n\r\n");
        if (end == std::string::npos)
            return "";
        std::string answer = m_received.substr(0, end + 4);
        m_received.erase(0, end + 4);
        return answer;
    }

    /// Shakes hands with a server that another thread serves.
    /// @return false if it has no room
    [[nodiscard]] bool enter(const char* protocol) {
        if (!send(handshake(protocol)))
            return false;
        for (;;) {
            const bool isOpen = receive();
            const std::string answer = takeAnswer();
            if (!answer.empty())
                return answer.starts_with("HTTP/1.1 101");
            if (!isOpen)
                return false;
            std::this_thread::yield();
        }
    }

    /// The next frame of the other side, if it is there.
    [[nodiscard]] Frame takeFrame() {
        receive();
        Frame frame;
        if (m_received.size() < 2)
            return frame;
        const auto byte = [this](std::size_t i) { return static_cast<unsigned char>(m_received[i]); };
        std::uint64_t length = byte(1) & 0x7F;
        std::size_t begin = 2;
        const int numBytes = length == 127 ? 8 : length == 126 ? 2 : 0;
        if (m_received.size() < begin + static_cast<std::size_t>(numBytes))
            return frame;
        if (numBytes != 0)
            length = 0;
        for (int i = 0; i < numBytes; ++i)
            length = length << 8 | byte(begin++);
        if (m_received.size() - begin < length)
            return frame;
        frame = {true,
                 (byte(0) & 0x80) != 0,
                 static_cast<unsigned char>(byte(0) & 0xF),
                 m_received.substr(begin, length)};
        m_received.erase(0, begin + length);
        return frame;
    }

    /// Ends the connection so that the other side gets an error, and no orderly end.
    void reset() {
        const linger atOnce{1, 0};
        ::setsockopt(m_socket, SOL_SOCKET, SO_LINGER, &atOnce, sizeof(atOnce));
        ::close(m_socket);
        m_socket = -1;
    }

private:
    static constexpr int MaxRounds = 1'000'000;

    int m_socket;
    std::string m_received;
};

} // namespace zelTest
