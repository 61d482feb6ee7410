#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>

namespace zelTest {

/// Waits at most a minute, which no machine needs.
inline bool waitUntil(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/// A connection that stays open.
class RawClient {
public:
    RawClient() : m_socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        m_address.sin_family = AF_INET;
        m_address.sin_addr.s_addr = htonl(INADDR_ANY);
        const timeval bound{60, 0};
        ::setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof(bound));
    }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;
    ~RawClient() { ::close(m_socket); }

    /// @param from  an address of this machine
    void connect(int port, std::uint32_t from = INADDR_LOOPBACK) {
        m_address.sin_addr.s_addr = htonl(from);
        if (from != INADDR_LOOPBACK) {
            EXPECT_EQ(::bind(m_socket, reinterpret_cast<const sockaddr*>(&m_address), sizeof(m_address)), 0);
        }
        m_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        m_address.sin_port = htons(static_cast<std::uint16_t>(port));
        EXPECT_EQ(::connect(m_socket, reinterpret_cast<const sockaddr*>(&m_address), sizeof(m_address)), 0);
    }
    void send(const std::string& bytes) const {
        EXPECT_EQ(::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    /// The same where the other side may hang up meanwhile.
    void sendSome(const std::string& bytes) const {
        static_cast<void>(::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL));
    }
    /// All that comes until the other side closes.
    [[nodiscard]] std::string receive() const {
        std::string answer;
        char block[4096];
        for (;;) {
            const ssize_t n = ::recv(m_socket, block, sizeof(block), 0);
            if (n > 0)
                answer.append(block, static_cast<std::size_t>(n));
            else if (n == 0 || errno != EINTR) // a child process of the server may end
                return answer;
        }
    }
    /// The next byte; 0 at the end.
    [[nodiscard]] char receiveOne() const {
        char byte = 0;
        return ::recv(m_socket, &byte, 1, 0) == 1 ? byte : '\0';
    }
    /// Lets the connection end by a reset.
    void resetAtEnd() const {
        const linger now{1, 0};
        EXPECT_EQ(::setsockopt(m_socket, SOL_SOCKET, SO_LINGER, &now, sizeof(now)), 0);
    }
    /// Before connect: how much comes in ahead of receive, about.
    void limitReceived(int numBytes) const {
        EXPECT_EQ(::setsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &numBytes, sizeof(numBytes)), 0);
    }
    /// Takes a port, one of the system's choice for 0.
    /// @return 0 if it can not be had
    int listen(int port = 0) {
        m_address.sin_port = htons(static_cast<std::uint16_t>(port));
        const int on = 1; // where connections have just ended
        EXPECT_EQ(::setsockopt(m_socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)), 0);
        if (::bind(m_socket, reinterpret_cast<const sockaddr*>(&m_address), sizeof(m_address)) != 0)
            return 0;
        EXPECT_EQ(::listen(m_socket, 1), 0);
        socklen_t size = sizeof(m_address);
        EXPECT_EQ(::getsockname(m_socket, reinterpret_cast<sockaddr*>(&m_address), &size), 0);
        return ntohs(m_address.sin_port);
    }

private:
    int m_socket;
    sockaddr_in m_address{};
};

/// Sends the bytes to a port of this machine, and takes all that comes back until the other side closes.
inline std::string
exchangeHttp(std::uint16_t port, const std::string& bytes, std::uint32_t from = INADDR_LOOPBACK) {
    RawClient client;
    client.connect(port, from);
    client.send(bytes);
    return client.receive();
}

/// A request whose lines of headers end in "\r\n".
inline std::string requestHttp(std::uint16_t port,
                               const std::string& uri,
                               const std::string& headers = "Host: localhost\r\n",
                               const std::string& method = "GET") {
    return exchangeHttp(port, method + " " + uri + " HTTP/1.1\r\n" + headers + "\r\n");
}

/// What follows the headers.
inline std::string bodyOf(const std::string& answer) {
    const std::size_t end = answer.find("\r\n\r\n");
    return end == std::string::npos ? "no answer" : answer.substr(end + 4);
}

} // namespace zelTest
