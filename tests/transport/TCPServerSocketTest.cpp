#include "SocketFixture.h"

#include <support/LogCapture.h>
#include <support/WhatOf.h>

#include <cerrno>

using zel::ref_ptr;
using zelNet::IPAddress;
using zelNet::NetError;
using zelNet::TCPSocket;
using zelTest::Loopback;
using zelTest::Open;
using zelTest::OpenServer;
using zelTest::whatOf;
using zelTest::whileFailing;

namespace {

/// What accept gave, with its descriptor in sight.
ref_ptr<zelTest::OpenSocket> inSight(const ref_ptr<TCPSocket>& accepted) {
    ref_ptr<zelTest::OpenSocket> socket(new zelTest::OpenSocket);
    socket->moveFrom(*accepted);
    return socket;
}

TEST(TCPServerSocketTest, OpenListens) {
    OpenServer server;
    server.open(0, false);
    EXPECT_TRUE(server.isValid());
    EXPECT_EQ(server.local().sin_addr.s_addr, INADDR_ANY);
    EXPECT_EQ(server.option(SOL_SOCKET, SO_ACCEPTCONN), 1);
    EXPECT_EQ(server.option(SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_TRUE(server.isNonBlocking());
    EXPECT_TRUE(server.closesOnExec());
    EXPECT_TRUE(server.blocking) << "what setBlocking was told last";
}

TEST(TCPServerSocketTest, TellsThePortThatTheSystemHasChosen) {
    OpenServer server;
    EXPECT_EQ(server.getPort(), 0) << "not open";
    server.open(0, false);
    EXPECT_NE(server.getPort(), 0);
    EXPECT_EQ(server.getPort(), server.port());
}

TEST(TCPServerSocketTest, AcceptNeverWaits) {
    OpenServer server;
    server.open(0, false);
    server.inputReady = true;
    EXPECT_EQ(server.accept(), nullptr);
    EXPECT_FALSE(server.inputReady);
}

TEST(TCPServerSocketTest, AcceptGivesAConnectionThatBlocks) {
    OpenServer server;
    server.open(0, false);
    zelTest::OpenSocket client;
    client.open(IPAddress(Loopback, server.port()), false);
    const ref_ptr<TCPSocket> accepted(server.accept());
    ASSERT_TRUE(accepted);
    EXPECT_EQ(accepted->address, IPAddress(Loopback, htons(client.port()))) << "in network byte order";
    const auto peer = inSight(accepted);
    EXPECT_FALSE(peer->isNonBlocking());
    EXPECT_TRUE(peer->closesOnExec());
    EXPECT_EQ(peer->option(IPPROTO_TCP, TCP_NODELAY), 0);
    EXPECT_EQ(server.accept(), nullptr);
}

TEST(TCPServerSocketTest, AcceptedConnectionsSendAtOnceIfOpenWasToldSo) {
    OpenServer server;
    server.open(0, true);
    TCPSocket client;
    client.open(IPAddress(Loopback, server.port()), false);
    EXPECT_NE(inSight(ref_ptr<TCPSocket>(server.accept()))->option(IPPROTO_TCP, TCP_NODELAY), 0);
}

TEST(TCPServerSocketTest, AssignmentMovesTheServer) {
    OpenServer target;
    {
        OpenServer source;
        source.open(0, true);
        target.moveFrom(source);
        EXPECT_FALSE(source.isValid());
    }
    TCPSocket client;
    client.open(IPAddress(Loopback, target.port()), false);
    EXPECT_NE(inSight(ref_ptr<TCPSocket>(target.accept()))->option(IPPROTO_TCP, TCP_NODELAY), 0);
}

TEST(TCPServerSocketTest, APortIsFreeAgainAtOnce) {
    OpenServer server;
    server.open(0, false);
    const zel::uint16 port = server.port();
    {
        TCPSocket client;
        client.open(IPAddress(Loopback, port), false);
        const ref_ptr<TCPSocket> accepted(server.accept());
        accepted->close(); // this end waits for late packets
    }
    server.close();
    server.open(port, false);
    EXPECT_EQ(server.port(), port);
}

TEST(TCPServerSocketTest, OpenTwiceFails) {
    OpenServer server;
    server.open(0, false);
    EXPECT_EQ(whatOf([&] { server.open(0, false); }), "TCPServerSocket::open(): socket already opened");
    EXPECT_TRUE(server.isValid());
}

TEST(TCPServerSocketTest, OpenWithoutDescriptorFails) {
    OpenServer server;
    whileFailing(SYS_socket, EMFILE, [&] {
        EXPECT_EQ(whatOf([&] { server.open(0, false); }), "TCPServerSocket::open(): Couldn't create socket");
    });
    EXPECT_FALSE(server.isValid());
}

TEST(TCPServerSocketTest, OpenOfAPortInUseFails) {
    OpenServer first;
    first.open(0, false);
    OpenServer second;
    const auto open = [&] { second.open(first.port(), false); };
    EXPECT_THROW(open(), NetError);
    EXPECT_EQ(whatOf(open), "TCPServerSocket::open(): Couldn't bind to local port");
    EXPECT_FALSE(second.isValid());
}

TEST(TCPServerSocketTest, OpenThatCanNotListenFails) {
    OpenServer server;
    whileFailing(SYS_listen, EADDRINUSE, [&] {
        EXPECT_EQ(whatOf([&] { server.open(0, false); }),
                  "TCPServerSocket::open(): Couldn't listen to local port");
    });
    EXPECT_FALSE(server.isValid());
}

TEST(TCPServerSocketTest, AcceptNeedsAnOpenSocket) {
    zelNet::TCPServerSocket server;
    server.inputReady = true;
    EXPECT_EQ(whatOf([&] { (void)server.accept(); }), "TCPServerSocket::accept(): the socket is not opened");
    EXPECT_FALSE(server.inputReady);
}

TEST(TCPServerSocketTest, AcceptPassesOverConnectionsThatWentAway) {
    OpenServer server;
    server.open(0, false);
    for (const int reason : {EAGAIN, EINTR, ECONNABORTED}) {
        const zelTest::LogCapture log;
        whileFailing(SYS_accept4, reason, [&] { EXPECT_EQ(server.accept(), nullptr); });
        EXPECT_EQ(log.text(), "");
    }
}

TEST(TCPServerSocketTest, AcceptWarnsWhereTheSystemHasNoRoom) {
    OpenServer server;
    server.open(0, false);
    const zelTest::LogCapture log;
    whileFailing(SYS_accept4, EMFILE, [&] { EXPECT_EQ(server.accept(), nullptr); });
    EXPECT_EQ(log.text(), "TCPServerSocket::accept(): a connection could not be accepted: error 24\n");
    EXPECT_EQ(log.levels().front(), zel::Notify::Warning);
}

} // namespace
