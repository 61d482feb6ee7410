#include "SocketFixture.h"

#include <zelNet/PortRange.h>
#include <zelNet/UDPSocket.h>

#include <support/WhatOf.h>

#include <cerrno>

using zelNet::getAvailablePort;
using zelNet::PortRange;
using zelTest::whatOf;
using zelTest::whileFailing;

namespace {

TEST(PortRangeTest, HandsOutItsPortsInAscendingOrder) {
    PortRange range(5000, 5002);
    EXPECT_EQ(range.getStartPort(), 5000);
    EXPECT_EQ(range.getEndPort(), 5002);
    EXPECT_EQ(range.getPort(), 5000U);
    EXPECT_EQ(range.getPort(), 5001U);
    EXPECT_EQ(range.getPort(), 5002U);
    EXPECT_EQ(range.getPort(), 0xFFFFFFFFU);
    EXPECT_EQ(static_cast<zel::uint16>(range.getPort()), 65535);
}

TEST(PortRangeTest, ResetBeginsAnew) {
    PortRange range(5000, 5002);
    (void)range.getPort();
    range.reset();
    EXPECT_EQ(range.getPort(), 5000U);
    EXPECT_EQ(range.getPort(), 5001U);
    EXPECT_EQ(range.getPort(), 5002U);
    EXPECT_EQ(range.getPort(), ~0U);
}

TEST(PortRangeTest, HoldsAllPortsThereAre) {
    PortRange range(0, 65535);
    for (zel::uint32 port = 0; port <= 65535; ++port)
        ASSERT_EQ(range.getPort(), port);
    EXPECT_EQ(range.getPort(), ~0U);
}

TEST(PortRangeDeathTest, ARangeOfOnePort) {
    EXPECT_DEATH(PortRange(5000, 5000), "zelVerify failed: `m_endPort > m_startPort'");
    EXPECT_DEATH(PortRange(5001, 5000), "zelVerify failed: `m_endPort > m_startPort'");
}

TEST(PortRangeTest, AnAvailablePortCanBeOpened) {
    // Another process may take it in between, but not time after time.
    bool opened = false;
    for (int i = 0; i < 10 && !opened; ++i)
        try {
            const zel::uint16 port = getAvailablePort();
            ASSERT_NE(port, 0);
            zelTest::Open<zelNet::UDPSocket> socket;
            socket.open(port);
            opened = socket.port() == port;
        } catch (const zelNet::NetError&) {
        }
    EXPECT_TRUE(opened);
}

TEST(PortRangeTest, AvailablePortsAreNotHeld) {
    const auto numDescriptors = [] {
        int n = 0;
        for (int i = 0; i < 256; ++i)
            n += fcntl(i, F_GETFD) != -1;
        return n;
    };
    const int before = numDescriptors();
    (void)getAvailablePort();
    whileFailing(SYS_bind, EACCES, [] { EXPECT_THROW((void)getAvailablePort(), zelNet::NetError); });
    EXPECT_EQ(numDescriptors(), before);
}

TEST(PortRangeTest, AvailablePortTellsWhatFailed) {
    const auto what = [] { return whatOf([] { (void)getAvailablePort(); }); };
    whileFailing(SYS_socket, EMFILE, [&] { EXPECT_EQ(what(), "Could not open socket"); });
    whileFailing(SYS_bind, EACCES, [&] { EXPECT_EQ(what(), "Could not bind socket"); });
    whileFailing(SYS_getsockname, ENOBUFS, [&] { EXPECT_EQ(what(), "Could not getsockname"); });
    whileFailing(SYS_close, EIO, [&] { EXPECT_EQ(what(), "Could not close socket"); });
}

} // namespace
