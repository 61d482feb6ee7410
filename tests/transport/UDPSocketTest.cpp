#include "SocketFixture.h"

#include <zelNet/UDPSocket.h>

#include <support/WhatOf.h>

#include <array>
#include <cerrno>
#include <string>

using zelNet::IPAddress;
using zelTest::bytesOf;
using zelTest::Loopback;
using zelTest::whatOf;
using zelTest::whileFailing;
using OpenUdp = zelTest::Open<zelNet::UDPSocket>;

namespace {

class UDPSocketTest : public testing::Test {
protected:
    /// Opens a socket on a port that the system chooses.
    static void openAnywhere(OpenUdp& socket) {
        for (zel::uint16 port = 40'000; !socket.isValid() && port < 65'000; port += 7)
            try {
                socket.open(port);
            } catch (const zelNet::NetError&) { // in use
            }
    }
    static constexpr zel::uint16 RoomSize = 16;
    std::array<zel::uint8, RoomSize> room{};
};

TEST_F(UDPSocketTest, OpenBindsToItsPort) {
    OpenUdp socket;
    socket.inputReady = true;
    openAnywhere(socket);
    ASSERT_TRUE(socket.isValid());
    EXPECT_FALSE(socket.inputReady);
    EXPECT_GE(socket.port(), 40'000);
    EXPECT_EQ(socket.local().sin_addr.s_addr, INADDR_ANY);
    EXPECT_EQ(socket.option(SOL_SOCKET, SO_BROADCAST), 1);
    EXPECT_TRUE(socket.closesOnExec());
}

TEST_F(UDPSocketTest, OpenOfPortZeroIsBoundByTheFirstPacket) {
    OpenUdp receiver;
    openAnywhere(receiver);
    OpenUdp socket;
    socket.open(0);
    EXPECT_EQ(socket.port(), 0);
    EXPECT_EQ(socket.option(SOL_SOCKET, SO_BROADCAST), 1);
    EXPECT_EQ(socket.send(bytesOf("x"), 1, IPAddress(Loopback, receiver.port())), 1U);
    EXPECT_NE(socket.port(), 0);
}

TEST_F(UDPSocketTest, TheSendersHostIsSwappedAndItsPortIsNot) {
    OpenUdp receiver;
    openAnywhere(receiver);
    OpenUdp sender;
    sender.open(0);
    sender.send(bytesOf("hello"), 5, IPAddress(Loopback, receiver.port()));
    IPAddress from;
    EXPECT_EQ(receiver.recv(room.data(), RoomSize, from), 5U);
    EXPECT_EQ(std::string(room.begin(), room.begin() + 5), "hello");
    EXPECT_EQ(from, IPAddress(0x7F000001, sender.port()));

    from.host = htonl(from.host);
    receiver.send(bytesOf("you"), 3, from);
    EXPECT_EQ(sender.recv(room.data(), RoomSize, from), 3U);
}

TEST_F(UDPSocketTest, AnEmptyPacketIsNoFailure) {
    OpenUdp receiver;
    openAnywhere(receiver);
    OpenUdp sender;
    sender.open(0);
    EXPECT_EQ(sender.send(bytesOf(""), 0, IPAddress(Loopback, receiver.port())), 0U);
    IPAddress from;
    EXPECT_EQ(receiver.recv(room.data(), RoomSize, from), 0U);
    EXPECT_EQ(from.port, sender.port());
}

TEST_F(UDPSocketTest, OpenTwiceFails) {
    OpenUdp socket;
    socket.open(0);
    EXPECT_EQ(whatOf([&] { socket.open(0); }), "UDPSocket::open(): the socket is already opened");
}

TEST_F(UDPSocketTest, OpenWithoutDescriptorFails) {
    OpenUdp socket;
    whileFailing(SYS_socket, EMFILE, [&] {
        EXPECT_EQ(whatOf([&] { socket.open(0); }), "UDPSocket::open(): ::socket() failed");
    });
    EXPECT_FALSE(socket.isValid());
}

TEST_F(UDPSocketTest, OpenOfAPortInUseFails) {
    OpenUdp first;
    openAnywhere(first);
    OpenUdp second;
    EXPECT_EQ(whatOf([&] { second.open(first.port()); }), "UDPSocket::open(): could not bind to local port");
    EXPECT_FALSE(second.isValid());
}

TEST_F(UDPSocketTest, SendAndRecvOfAClosedSocketFail) {
    OpenUdp socket;
    IPAddress from(1, 2);
    EXPECT_EQ(whatOf([&] { socket.send(room.data(), 1, IPAddress(Loopback, 1)); }),
              "UDPSocket::send(): sendto() failed");
    EXPECT_EQ(whatOf([&] { socket.recv(room.data(), 1, from); }), "UDPSocket::recv(): recvfrom() failed");
    EXPECT_EQ(from, IPAddress(1, 2));
}

} // namespace
