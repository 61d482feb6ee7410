#include "SocketFixture.h"

#include <support/LogCapture.h>
#include <sys/uio.h>

#include <cerrno>
#include <string>
#include <vector>

using zel::uint8;
using zelNet::IPAddress;
using zelNet::NetError;
using zelNet::Socket;
using zelNet::TCPSocket;
using zelNet::TimeoutConnectError;
using zelTest::bytesOf;
using zelTest::Connection;
using zelTest::errorOf;
using zelTest::Loopback;
using zelTest::OpenServer;
using zelTest::OpenSocket;
using zelTest::Pipe;
using zelTest::whileFailing;

namespace {

void expectError(const NetError& error, const std::string& text, const Socket* socket) {
    EXPECT_EQ(error.what(), text);
    EXPECT_EQ(error.getSocket(), socket);
}

/// Waits for the bytes of an end that another thread may still send to.
std::string receive(TCPSocket& socket, zel::uint32 size) {
    std::string bytes(size, '\0');
    socket.recvBlocking(reinterpret_cast<uint8*>(bytes.data()), size);
    return bytes;
}

class TCPSocketTest : public testing::Test {
protected:
    /// Ends the connection with a reset.
    static void reset(OpenSocket& socket) {
        const linger none{1, 0};
        ASSERT_EQ(setsockopt(socket.descriptor(), SOL_SOCKET, SO_LINGER, &none, sizeof(none)), 0);
        socket.close();
    }
    std::vector<uint8> room = std::vector<uint8>(64);
};

// Opening

TEST_F(TCPSocketTest, OpenConnects) {
    OpenServer server;
    server.open(0, false);
    OpenSocket socket;
    socket.inputReady = true;
    const IPAddress address(Loopback, server.port());
    socket.open(address, false);
    EXPECT_TRUE(socket.isValid());
    EXPECT_FALSE(socket.inputReady);
    EXPECT_EQ(socket.address, address);
    EXPECT_TRUE(socket.closesOnExec());
    EXPECT_FALSE(socket.isNonBlocking());
    EXPECT_EQ(socket.option(IPPROTO_TCP, TCP_NODELAY), 0);
    EXPECT_TRUE(zel::ref_ptr<TCPSocket>(server.accept()));
}

TEST_F(TCPSocketTest, OpenSendsSmallPiecesAtOnceIfToldSo) {
    OpenServer server;
    server.open(0, false);
    OpenSocket socket;
    socket.open(IPAddress(Loopback, server.port()), true);
    EXPECT_NE(socket.option(IPPROTO_TCP, TCP_NODELAY), 0);
}

TEST_F(TCPSocketTest, OpenTwiceFails) {
    Pipe pipe;
    expectError(errorOf([&] { pipe.socket.open(IPAddress(), false); }),
                "TCPSocket::open(): socket already opened",
                nullptr);
    EXPECT_TRUE(pipe.socket.isValid());
}

TEST_F(TCPSocketTest, OpenWithoutDescriptorFails) {
    TCPSocket socket;
    whileFailing(SYS_socket, EMFILE, [&] {
        expectError(errorOf([&] { socket.open(IPAddress(), false); }),
                    "TCPSocket::open(): Couldn't create socket",
                    nullptr);
    });
    EXPECT_FALSE(socket.isValid());
}

TEST_F(TCPSocketTest, OpenWhereNobodyListensIsATimeout) {
    OpenServer server;
    server.open(0, false);
    const IPAddress address(Loopback, server.port());
    server.close();
    TCPSocket socket;
    const auto open = [&] { socket.open(address, false); };
    EXPECT_THROW(open(), TimeoutConnectError);
    expectError(errorOf(open), "TCPSocket::open(): Timeout waiting for remote host.", nullptr);
    EXPECT_FALSE(socket.isValid());
    EXPECT_EQ(socket.address, IPAddress());
}

TEST_F(TCPSocketTest, OpenNeverFindsItselfWhereNobodyListens) {
    const zelTest::LogCapture log;
    OpenServer server;
    server.open(0, false);
    // The system gives every other port to those that connect, one after the other, and this is one of them.
    const auto port = static_cast<zel::uint16>(server.port() + 1);
    server.close();
    for (int attempt = 0; attempt < 16'000; ++attempt) {
        OpenSocket socket;
        try {
            socket.open(IPAddress(Loopback, port), false);
            ASSERT_NE(socket.port(), port) << attempt;
        } catch (const TimeoutConnectError&) {
            EXPECT_FALSE(socket.isValid());
        }
    }
}

TEST_F(TCPSocketTest, OpenThatCanNotGetThereIsATimeout) {
    TCPSocket socket;
    for (const int reason : {ETIMEDOUT, ECONNREFUSED, ENETUNREACH})
        whileFailing(SYS_connect, reason, [&] {
            const auto open = [&] { socket.open(IPAddress(Loopback, 1), false); };
            EXPECT_THROW(open(), TimeoutConnectError);
            expectError(errorOf(open), "TCPSocket::open(): Timeout waiting for remote host.", nullptr);
        });
}

TEST_F(TCPSocketTest, OpenTellsAnotherReasonByItsNumber) {
    TCPSocket socket;
    whileFailing(SYS_connect, EHOSTUNREACH, [&] {
        const auto open = [&] { socket.open(IPAddress(Loopback, 1), false); };
        expectError(errorOf(open), "TCPSocket::open(): Error connecting to remote host (113)", &socket);
        try {
            open();
        } catch (const TimeoutConnectError&) {
            ADD_FAILURE() << "a timeout";
        } catch (const NetError&) {
        }
    });
    EXPECT_FALSE(socket.isValid());
}

TEST_F(TCPSocketTest, OpenOutlivesAnInterruption) {
    // A queue of connections that is full keeps the next one waiting until there is room.
    OpenServer server;
    server.adopt(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = Loopback;
    ASSERT_EQ(bind(server.descriptor(), reinterpret_cast<const sockaddr*>(&local), sizeof(local)), 0);
    ASSERT_EQ(listen(server.descriptor(), 0), 0);
    const IPAddress address(Loopback, server.port());
    OpenSocket first;
    first.open(address, false);

    const zelTest::SignalCounter signals;
    OpenSocket second;
    zelTest::Worker worker([&] { second.open(address, false); });
    worker.awaitSleepIn(SYS_connect);
    worker.signal(SIGUSR1);
    const zel::ref_ptr<TCPSocket> accepted(server.accept());
    worker.join();
    EXPECT_EQ(zelTest::SignalCounter::count(), 1);
    EXPECT_TRUE(second.isValid());
    const zel::ref_ptr<TCPSocket> other(server.accept());
    second.sendBlocking(bytesOf("hello"), 5);
    EXPECT_EQ(receive(*other, 5), "hello");
}

TEST_F(TCPSocketTest, FailuresAreLoggedWithTheirPlace) {
    const zelTest::LogCapture log;
    TCPSocket socket;
    EXPECT_THROW(socket.disableNaggle(), NetError);
    ASSERT_EQ(log.texts().size(), 1U);
    EXPECT_TRUE(log.text().starts_with("Exception thrown from [")) << log.text();
    EXPECT_NE(log.text().find("(disableNaggle)]:  \"TCPSocket::disableNaggle(): socket is not opened\"\n"),
              std::string::npos)
        << log.text();
    EXPECT_EQ(log.levels().front(), zel::Notify::Warning);
}

TEST_F(TCPSocketTest, DisableNaggleNeedsAnOpenSocket) {
    TCPSocket socket;
    expectError(errorOf([&] { socket.disableNaggle(); }),
                "TCPSocket::disableNaggle(): socket is not opened",
                nullptr);
}

TEST_F(TCPSocketTest, DisableNaggleWarnsWhereTheSystemRefuses) {
    Pipe pipe; // knows no such option
    const zelTest::LogCapture log;
    pipe.socket.disableNaggle();
    EXPECT_EQ(log.text(), "Could not switch TCP_NODELAY on: error " + std::to_string(EOPNOTSUPP) + "\n");
}

// One call

TEST_F(TCPSocketTest, SendGivesTheBytesThatWereTaken) {
    Pipe pipe;
    pipe.socket.outputReady = true;
    EXPECT_EQ(pipe.socket.send(bytesOf("abc"), 3), 3U);
    EXPECT_FALSE(pipe.socket.outputReady);
    EXPECT_EQ(pipe.take(3), "abc");
}

TEST_F(TCPSocketTest, RecvGivesTheBytesThatCame) {
    Pipe pipe;
    pipe.give("abc");
    pipe.socket.inputReady = true;
    EXPECT_EQ(pipe.socket.recv(room.data(), room.size()), 3U);
    EXPECT_FALSE(pipe.socket.inputReady);
    EXPECT_EQ(std::string(room.begin(), room.begin() + 3), "abc");
}

TEST_F(TCPSocketTest, SendAndRecvOfAClosedSocketTellTheSame) {
    TCPSocket socket;
    const char* const text = "TCPSocket::send(): socket is not opened";
    expectError(errorOf([&] { (void)socket.send(room.data(), 1); }), text, nullptr);
    expectError(errorOf([&] { (void)socket.recv(room.data(), 1); }), text, nullptr);
    expectError(errorOf([&] { socket.sendBlocking(room.data(), 1); }), text, nullptr);
    expectError(errorOf([&] { socket.recvBlocking(room.data(), 1); }), text, nullptr);
}

TEST_F(TCPSocketTest, RecvTellsThatThePeerClosed) {
    Connection connection;
    connection.peer.close();
    expectError(errorOf([&] { (void)connection.client.recv(room.data(), 1); }),
                "TCPSocket::recv() failed",
                &connection.client);
}

TEST_F(TCPSocketTest, RecvTellsAFailureWithoutTheSocket) {
    Connection connection;
    reset(connection.peer);
    expectError(
        errorOf([&] { (void)connection.client.recv(room.data(), 1); }), "TCPSocket::recv() failed", nullptr);
}

TEST_F(TCPSocketTest, SendToAPeerThatIsGoneFails) {
    Pipe pipe;
    pipe.closePeer();
    expectError(
        errorOf([&] { (void)pipe.socket.send(room.data(), 1); }), "TCPSocket::send() failed.", nullptr);
}

TEST_F(TCPSocketTest, SendOfNothingIsTakenForAPeerThatClosed) {
    Pipe pipe;
    expectError(
        errorOf([&] { (void)pipe.socket.send(room.data(), 0); }), "TCPSocket::send() failed.", &pipe.socket);
}

TEST_F(TCPSocketTest, SendAndRecvThatWouldWaitFail) {
    Pipe pipe;
    pipe.socket.setBlocking(false);
    expectError(
        errorOf([&] { (void)pipe.socket.recv(room.data(), 1); }), "TCPSocket::recv() failed", nullptr);
    pipe.fill();
    expectError(
        errorOf([&] { (void)pipe.socket.send(room.data(), 1); }), "TCPSocket::send() failed.", nullptr);
}

TEST_F(TCPSocketTest, RecvThatWasInterruptedGoesOnUntilThePeerCloses) {
    const zelTest::SignalCounter signals;
    Pipe pipe;
    NetError error("none");
    zelTest::Worker worker(
        [&] { error = errorOf([&] { (void)pipe.socket.recv(room.data(), room.size()); }); });
    worker.awaitSleepIn(SYS_recvfrom);
    worker.signal(SIGUSR1);
    while (zelTest::SignalCounter::count() == 0)
        std::this_thread::yield();
    worker.awaitSleepIn(SYS_recvfrom);
    pipe.give("lost");
    pipe.closePeer();
    worker.join();
    expectError(error, "TCPSocket::recv() failed", &pipe.socket);
}

TEST_F(TCPSocketTest, SendThatWasInterruptedGoesOnUntilAFailure) {
    const zelTest::SignalCounter signals;
    Pipe pipe;
    pipe.fill();
    NetError error("none");
    zelTest::Worker worker([&] { error = errorOf([&] { (void)pipe.socket.send(bytesOf("ab"), 2); }); });
    worker.awaitSleepIn(SYS_sendto);
    worker.signal(SIGUSR1);
    while (zelTest::SignalCounter::count() == 0)
        std::this_thread::yield();
    // It sends the same bytes over and over.
    std::string bytes;
    while (bytes.find("abab") == std::string::npos)
        bytes += pipe.take(4096);
    pipe.closePeer();
    worker.join();
    expectError(error, "TCPSocket::send() failed.", nullptr);
}

// Until all is done

TEST_F(TCPSocketTest, BlockingCallsOfNothingDoNotTouchTheSocket) {
    TCPSocket socket;
    socket.inputReady = true;
    socket.outputReady = true;
    socket.sendBlocking(room.data(), 0);
    socket.recvBlocking(room.data(), 0);
    EXPECT_TRUE(socket.inputReady);
    EXPECT_TRUE(socket.outputReady);
}

TEST_F(TCPSocketTest, RecvBlockingTakesSingleBytes) {
    Pipe pipe;
    zelTest::Worker worker([&] {
        for (const char c : std::string("slowly"))
            pipe.give(std::string(1, c));
    });
    EXPECT_EQ(receive(pipe.socket, 6), "slowly");
    EXPECT_FALSE(pipe.socket.inputReady);
}

TEST_F(TCPSocketTest, RecvBlockingLeavesWhatFollows) {
    Pipe pipe;
    pipe.give("abcd");
    EXPECT_EQ(receive(pipe.socket, 3), "abc");
    EXPECT_EQ(receive(pipe.socket, 1), "d");
}

TEST_F(TCPSocketTest, BlockingCallsMoveMoreThanTheSystemHolds) {
    for (const bool blocking : {true, false}) {
        Connection connection;
        connection.client.setBlocking(blocking);
        connection.peer.setBlocking(blocking);
        std::string bytes(8 << 20, '\0');
        for (std::size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = static_cast<char>(i * 31 + i / 255);
        zelTest::Worker worker([&] {
            connection.peer.sendBlocking(bytesOf(bytes), static_cast<zel::uint32>(bytes.size()));
            EXPECT_FALSE(connection.peer.outputReady);
        });
        EXPECT_TRUE(receive(connection.client, static_cast<zel::uint32>(bytes.size())) == bytes) << blocking;
    }
}

TEST_F(TCPSocketTest, RecvBlockingTellsThatThePeerClosedHalfway) {
    Pipe pipe;
    pipe.give("abc");
    pipe.closePeer();
    expectError(errorOf([&] { (void)receive(pipe.socket, 4); }), "TCPSocket::recv() failed", &pipe.socket);
}

TEST_F(TCPSocketTest, RecvBlockingTellsThatThePeerResetTheConnection) {
    Connection connection;
    NetError error("none");
    zelTest::Worker worker([&] { error = errorOf([&] { (void)receive(connection.client, 4); }); });
    worker.awaitSleepIn(SYS_recvfrom);
    reset(connection.peer);
    worker.join();
    expectError(error, "TCPSocket::recv() failed", nullptr);
}

TEST_F(TCPSocketTest, SendBlockingTellsThatAStalledPeerWentAway) {
    Pipe pipe;
    pipe.fill();
    NetError error("none");
    zelTest::Worker worker([&] { error = errorOf([&] { pipe.socket.sendBlocking(room.data(), 4); }); });
    worker.awaitSleepIn(SYS_sendmsg);
    pipe.closePeer();
    worker.join();
    expectError(error, "TCPSocket::send() failed.", nullptr);
}

TEST_F(TCPSocketTest, RecvBlockingOfASocketThatDoesNotBlockWaits) {
    Pipe pipe;
    pipe.socket.setBlocking(false);
    std::string bytes;
    zelTest::Worker worker([&] { bytes = receive(pipe.socket, 2); });
    worker.awaitSleepIn(SYS_ppoll);
    pipe.give("a");
    worker.awaitSleepIn(SYS_ppoll);
    pipe.give("b");
    worker.join();
    EXPECT_EQ(bytes, "ab");
}

TEST_F(TCPSocketTest, SignalsWaitWhileBlockingCallsWait) {
    const zelTest::SignalCounter signals;
    Pipe pipe;
    int countBefore = -1;
    std::string bytes;
    zelTest::Worker worker([&] {
        bytes = receive(pipe.socket, 2);
        pipe.fill();
        pipe.socket.sendBlocking(bytesOf("cd"), 2);
        countBefore = zelTest::SignalCounter::count();
    });
    worker.awaitSleepIn(SYS_recvfrom);
    worker.signal(SIGUSR1);
    EXPECT_EQ(zelTest::SignalCounter::count(), 0);
    pipe.give("ab");
    worker.awaitSleepIn(SYS_sendmsg);
    EXPECT_EQ(zelTest::SignalCounter::count(), 1);
    worker.signal(SIGUSR1);
    EXPECT_EQ(zelTest::SignalCounter::count(), 1);
    std::string sent;
    while (!sent.ends_with("cd"))
        sent += pipe.take(1);
    worker.join();
    EXPECT_EQ(bytes, "ab");
    EXPECT_EQ(countBefore, 2);
}

TEST_F(TCPSocketTest, APeerThatIsGoneDoesNotEndTheProcess) {
    Connection connection;
    reset(connection.peer);
    EXPECT_THROW(
        {
            for (;;)
                connection.client.sendBlocking(room.data(), 1); // SIGPIPE, if nobody ignored it
        },
        NetError);
}

TEST_F(TCPSocketTest, BlockingOperationsAskWhetherTheyMayGoOnWaiting) {
    Pipe pipe;
    int numAsked = 0;
    pipe.socket.setMayWait([&numAsked] { return ++numAsked < 2; });
    zel::uint8 bytes[5] = {};
    EXPECT_STREQ(errorOf([&] { pipe.socket.recvBlocking(bytes, sizeof(bytes)); }).what(),
                 "TCPSocket: nobody waits for the peer any more");
    EXPECT_EQ(numAsked, 2);
    pipe.fill();
    EXPECT_STREQ(errorOf([&] { pipe.socket.sendBlocking(bytes, sizeof(bytes)); }).what(),
                 "TCPSocket: nobody waits for the peer any more");
    EXPECT_EQ(numAsked, 3);
    pipe.give("hello");
    pipe.socket.recvBlocking(bytes, sizeof(bytes));
    EXPECT_EQ(numAsked, 3) << "nobody is asked where nothing waits";
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(bytes), sizeof(bytes)), "hello");
}

TEST_F(TCPSocketTest, SendBlockingSendsMorePiecesThanTheSystemTakesAtOnce) {
    Pipe pipe;
    std::string expected;
    for (int i = 0; i < 3000; ++i)
        expected += static_cast<char>('a' + i % 26);
    std::vector<iovec> pieces;
    for (char& c : expected)
        pieces.push_back({&c, 1});
    pipe.socket.sendBlocking(pieces.data(), pieces.size());
    EXPECT_EQ(pipe.takeAll(), expected);
}

} // namespace
