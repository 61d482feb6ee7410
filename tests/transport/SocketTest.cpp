#include "SocketFixture.h"

#include <zelNet/Socket.h>

#include <sys/resource.h>

#include <cerrno>
#include <type_traits>

using zelNet::IPAddress;
using zelNet::Socket;
using zelTest::OpenSocket;
using zelTest::Pipe;

namespace {

static_assert(!std::is_copy_constructible_v<Socket>);
static_assert(!std::is_copy_constructible_v<zelNet::TCPSocket>);

TEST(SocketTest, BeginsClosedAndBlocking) {
    const Socket socket(IPAddress(5, 6));
    EXPECT_FALSE(socket.isValid());
    EXPECT_FALSE(socket.inputReady);
    EXPECT_FALSE(socket.outputReady);
    EXPECT_TRUE(socket.blocking);
    EXPECT_EQ(socket.address, IPAddress(5, 6));
}

TEST(SocketTest, CloseClearsTheFlags) {
    Pipe pipe;
    pipe.socket.inputReady = true;
    pipe.socket.outputReady = true;
    pipe.socket.close();
    EXPECT_FALSE(pipe.socket.isValid());
    EXPECT_FALSE(pipe.socket.inputReady);
    EXPECT_FALSE(pipe.socket.outputReady);
    EXPECT_EQ(pipe.take(1), "");
}

TEST(SocketTest, DestructionClosesTheDescriptor) {
    int descriptor = -1;
    {
        Pipe pipe;
        descriptor = pipe.socket.descriptor();
        ASSERT_NE(fcntl(descriptor, F_GETFD), -1);
    }
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
}

TEST(SocketTest, AssignmentMovesTheDescriptor) {
    Pipe target;
    {
        Pipe source;
        source.socket.inputReady = true;
        source.socket.outputReady = true;
        source.socket.blocking = false;
        source.socket.address = IPAddress(1, 2);
        const int descriptor = source.socket.descriptor();
        target.socket.moveFrom(source.socket);
        EXPECT_FALSE(source.socket.isValid());
        EXPECT_EQ(target.socket.descriptor(), descriptor);
        EXPECT_TRUE(target.socket.inputReady);
        EXPECT_TRUE(target.socket.outputReady);
        EXPECT_FALSE(target.socket.blocking);
        EXPECT_EQ(target.socket.address, IPAddress(1, 2));
    }
    EXPECT_EQ(target.take(1), "") << "the target was not closed";
    EXPECT_NE(fcntl(target.socket.descriptor(), F_GETFD), -1) << "the source closed what it gave away";
}

TEST(SocketTest, AssignmentToItselfChangesNothing) {
    Pipe pipe;
    const int descriptor = pipe.socket.descriptor();
    pipe.socket.outputReady = true;
    pipe.socket.moveFrom(pipe.socket);
    EXPECT_EQ(pipe.socket.descriptor(), descriptor);
    EXPECT_TRUE(pipe.socket.outputReady);
}

TEST(SocketTest, AssignmentTakesNoOwners) {
    const zel::ref_ptr<Socket> a(new Socket(IPAddress()));
    const zel::ref_ptr<Socket> b(new Socket(IPAddress()));
    const zel::ref_ptr<Socket> c = b;
    *a = *b;
    EXPECT_EQ(a->referenceCount(), 1);
    EXPECT_EQ(b->referenceCount(), 2);
}

TEST(SocketTest, SetBlockingChangesTheDescriptor) {
    Pipe pipe;
    pipe.socket.setBlocking(false);
    EXPECT_FALSE(pipe.socket.blocking);
    EXPECT_TRUE(pipe.socket.isNonBlocking());
    pipe.socket.setBlocking(true);
    EXPECT_TRUE(pipe.socket.blocking);
    EXPECT_FALSE(pipe.socket.isNonBlocking());
}

TEST(SocketDeathTest, SetBlockingOfAClosedSocket) {
    Socket socket((IPAddress()));
    EXPECT_DEATH(socket.setBlocking(false),
                 R"(zelVerify failed: `fcntl\(castToSocket\(m_socket\), F_SETFL, flags\) == 0')");
}

TEST(SocketTest, SelectTellsWhatIsReady) {
    Pipe pipe;
    pipe.socket.select(10'000);
    EXPECT_TRUE(pipe.socket.outputReady);
    EXPECT_FALSE(pipe.socket.inputReady);
    pipe.give("x");
    pipe.socket.select(10'000);
    EXPECT_TRUE(pipe.socket.inputReady);
}

TEST(SocketTest, SelectClearsNoFlags) {
    Pipe pipe;
    pipe.fill();
    pipe.socket.inputReady = true;
    pipe.socket.outputReady = true;
    pipe.socket.select(0);
    EXPECT_TRUE(pipe.socket.inputReady);
    EXPECT_TRUE(pipe.socket.outputReady);
}

TEST(SocketTest, SelectGivesUpAfterItsTime) {
    Pipe pipe;
    pipe.fill();
    pipe.socket.select(1);
    EXPECT_FALSE(pipe.socket.inputReady);
    EXPECT_FALSE(pipe.socket.outputReady);
}

TEST(SocketTest, SelectTellsThatThePeerClosed) {
    Pipe pipe;
    pipe.closePeer();
    pipe.socket.select(10'000);
    EXPECT_TRUE(pipe.socket.inputReady);
}

TEST(SocketTest, SelectOfAClosedSocketReturnsAtOnce) {
    Socket socket((IPAddress()));
    socket.select(0xFFFFFFFF);
    EXPECT_FALSE(socket.inputReady);
    EXPECT_FALSE(socket.outputReady);
}

TEST(SocketTest, SelectLeavesTheFlagsWhereTheSystemFails) {
    Pipe pipe;
    zelTest::whileFailing(SYS_ppoll, ENOMEM, [&] { pipe.socket.select(0xFFFFFFFF); });
    EXPECT_FALSE(pipe.socket.outputReady);
}

TEST(SocketTest, DescriptorsAboveThoseOfASetWork) {
    constexpr int High = 1500;
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    ASSERT_GT(limit.rlim_max, rlim_t{High});
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    Pipe pipe;
    const int high = fcntl(pipe.socket.descriptor(), F_DUPFD_CLOEXEC, High);
    ASSERT_GE(high, High);
    pipe.socket.close();
    pipe.socket.adopt(high);
    pipe.socket.setBlocking(false);
    pipe.give("x");
    pipe.socket.select(10'000);
    EXPECT_TRUE(pipe.socket.inputReady);
    zel::uint8 byte = 0;
    pipe.socket.recvBlocking(&byte, 1);
    EXPECT_EQ(byte, 'x');
}

TEST(SocketTest, SelectThatWasInterruptedGoesOnUntilAFailure) {
    const zelTest::SignalCounter signals;
    Pipe pipe;
    pipe.fill();
    zelTest::Worker worker([&] { pipe.socket.select(600'000); });
    worker.awaitSleepIn(SYS_ppoll);
    worker.signal(SIGUSR1);
    while (zelTest::SignalCounter::count() == 0)
        std::this_thread::yield();
    worker.awaitSleepIn(SYS_ppoll);
    pipe.give("x");
    worker.awaitWake(); // it can be read from now on, which does not end the call
    ::close(pipe.socket.descriptor());
    worker.join();
    EXPECT_FALSE(pipe.socket.inputReady);
    pipe.socket.release();
}

TEST(SocketTest, LastErrorIsThatOfTheThread) {
    errno = EADDRINUSE;
    EXPECT_EQ(Socket::getLastError(), EADDRINUSE);
}

} // namespace
