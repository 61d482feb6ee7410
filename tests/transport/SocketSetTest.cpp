#include "SocketFixture.h"

#include <zelNet/SocketSet.h>

#include <support/WhatOf.h>

#include <cerrno>
#include <memory>
#include <vector>

using zel::ref_ptr;
using zelNet::IPAddress;
using zelNet::Socket;
using zelNet::SocketSet;
using zelTest::OpenSocket;
using zelTest::Pipe;
using zelTest::whatOf;

namespace {

class SocketSetTest : public testing::Test {
protected:
    /// A member whose peer can be written to. The pipe's own socket is closed.
    ref_ptr<OpenSocket> addMember() {
        m_pipes.push_back(std::make_unique<Pipe>());
        ref_ptr<OpenSocket> socket(new OpenSocket);
        socket->moveFrom(m_pipes.back()->socket);
        set.addSocket(socket.get());
        return socket;
    }
    [[nodiscard]] Pipe& pipe(std::size_t i) const { return *m_pipes[i]; }

    SocketSet set;

private:
    std::vector<std::unique_ptr<Pipe>> m_pipes;
};

TEST_F(SocketSetTest, KeepsItsMembersAlive) {
    ref_ptr<Socket> socket(new Socket(IPAddress()));
    EXPECT_TRUE(set.addSocket(socket.get()));
    EXPECT_EQ(socket->referenceCount(), 2);
    EXPECT_TRUE(set.removeSocket(socket.get()));
    EXPECT_EQ(socket->referenceCount(), 1);
    EXPECT_FALSE(set.removeSocket(socket.get()));
}

TEST_F(SocketSetTest, AMemberIsNotAddedAgain) {
    const ref_ptr<Socket> socket(new Socket(IPAddress()));
    set.addSocket(socket.get());
    EXPECT_FALSE(set.addSocket(socket.get()));
    EXPECT_EQ(socket->referenceCount(), 2);
}

TEST_F(SocketSetTest, HoldsOneThousandAndTwentyFour) {
    EXPECT_EQ(SocketSet::getMaxSockets(), 1024U);
    const ref_ptr<Socket> first(new Socket(IPAddress()));
    set.addSocket(first.get());
    for (int i = 1; i < 1024; ++i)
        EXPECT_TRUE(set.addSocket(new Socket(IPAddress())));
    const ref_ptr<Socket> oneMore(new Socket(IPAddress()));
    const auto add = [&] { set.addSocket(oneMore.get()); };
    EXPECT_THROW(add(), zelNet::NetError);
    EXPECT_EQ(whatOf(add), "SocketSet::SocketSet(): no more sockets available");
    EXPECT_EQ(oneMore->referenceCount(), 1);
    EXPECT_FALSE(set.addSocket(first.get())) << "a member is a member, however full the set is";
    set.removeSocket(first.get());
    EXPECT_TRUE(set.addSocket(oneMore.get()));
}

TEST_F(SocketSetTest, NullIsNoSocket) {
    EXPECT_EQ(whatOf([&] { set.addSocket(nullptr); }),
              "SocketSet::addSocket(): null socket pointer passed as argument");
    EXPECT_EQ(whatOf([&] { set.removeSocket(nullptr); }),
              "SocketSet::removeSocket(): null socket pointer passed as argument");
}

TEST_F(SocketSetTest, CheckMarksTheMembersThatCanBeRead) {
    const auto a = addMember();
    const auto b = addMember();
    const auto c = addMember();
    pipe(1).give("x");
    pipe(2).closePeer();
    EXPECT_TRUE(set.checkSockets(10'000));
    EXPECT_FALSE(a->inputReady);
    EXPECT_TRUE(b->inputReady);
    EXPECT_TRUE(c->inputReady);
    EXPECT_FALSE(b->outputReady);
}

TEST_F(SocketSetTest, CheckClearsNoFlags) {
    const auto a = addMember();
    a->inputReady = true;
    EXPECT_FALSE(set.checkSockets(0));
    EXPECT_TRUE(a->inputReady);
}

TEST_F(SocketSetTest, CheckOfAnEmptySetReturnsAtOnce) {
    EXPECT_FALSE(set.checkSockets(0xFFFFFFFF));
}

TEST_F(SocketSetTest, CheckPassesOverClosedMembers) {
    const auto a = addMember();
    const auto b = addMember();
    a->close();
    pipe(1).give("x");
    EXPECT_TRUE(set.checkSockets(10'000));
    EXPECT_TRUE(b->inputReady);
    b->close();
    EXPECT_FALSE(set.checkSockets(0xFFFFFFFF));
}

TEST_F(SocketSetTest, CheckOfADescriptorThatSomebodyClosedFails) {
    const auto a = addMember();
    const auto b = addMember();
    pipe(1).give("x");
    ::close(a->descriptor());
    EXPECT_FALSE(set.checkSockets(0xFFFFFFFF));
    EXPECT_FALSE(b->inputReady);
    a->release();
}

TEST_F(SocketSetTest, CheckThatWasInterruptedGoesOnUntilAFailure) {
    const zelTest::SignalCounter signals;
    const auto a = addMember();
    bool result = true;
    zelTest::Worker worker([&] { result = set.checkSockets(600'000); });
    worker.awaitSleepIn(SYS_ppoll);
    worker.signal(SIGUSR1);
    while (zelTest::SignalCounter::count() == 0)
        std::this_thread::yield();
    worker.awaitSleepIn(SYS_ppoll);
    pipe(0).give("x");
    worker.awaitWake(); // it can be read from now on, which does not end the call
    ::close(a->descriptor());
    worker.join();
    EXPECT_FALSE(result);
    EXPECT_FALSE(a->inputReady);
    a->release();
}

TEST_F(SocketSetTest, RemovalKeepsTheOthers) {
    const auto a = addMember();
    const auto b = addMember();
    const auto c = addMember();
    set.removeSocket(b.get());
    for (std::size_t i = 0; i < 3; ++i)
        pipe(i).give("x");
    EXPECT_TRUE(set.checkSockets(10'000));
    EXPECT_TRUE(a->inputReady);
    EXPECT_FALSE(b->inputReady);
    EXPECT_TRUE(c->inputReady);
}

} // namespace
