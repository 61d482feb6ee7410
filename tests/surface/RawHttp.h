#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdint>
#include <string>

namespace zelTest {

/// Sends the bytes to a port of this machine, and takes all that comes back until the other side closes.
inline std::string exchangeHttp(std::uint16_t port, const std::string& bytes) {
    const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    const timeval bound{60, 0};
    ::setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof(bound));
    EXPECT_EQ(::connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(::send(client, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    std::string answer;
    char block[4096];
    for (ssize_t n = 0; (n = ::recv(client, block, sizeof(block), 0)) > 0;)
        answer.append(block, static_cast<std::size_t>(n));
    ::close(client);
    return answer;
}

/// A request whose lines of headers end in "\r\n".
inline std::string requestHttp(std::uint16_t port,
                               const std::string& uri,
                               const std::string& headers = "Host: localhost\r\n",
                               const std::string& method = "GET") {
    return exchangeHttp(port, method + " " + uri + " HTTP/1.1\r\n" + headers + "\r\n");
}

} // namespace zelTest
