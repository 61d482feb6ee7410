#include "SocketFixture.h"

#include <zelCore/zelCore.h>
#include <zelNet/Library.h>

#include <support/WhatOf.h>

#include <csignal>

using zelNet::IPAddress;
using zelNet::Library;
using zelTest::whatOf;

namespace {

void otherHandler(int) {}

sighandler_t sigPipeHandler() {
    struct sigaction action {};
    sigaction(SIGPIPE, nullptr, &action);
    return action.sa_handler;
}

/// Leaves no library and the disposition of SIGPIPE as it was.
class LibraryTest : public testing::Test {
protected:
    void SetUp() override {
        zelCore::init();
        endLibrary();
        sigaction(SIGPIPE, nullptr, &m_old);
        std::signal(SIGPIPE, SIG_DFL);
    }
    void TearDown() override {
        endLibrary(); // the next one begins anew
        sigaction(SIGPIPE, &m_old, nullptr);
        zelCore::shutdown();
    }
    /// What the end of all services does to it, once.
    static void endLibrary() { Library::instance()->shutdown(); }

private:
    struct sigaction m_old {};
};

TEST_F(LibraryTest, IsMadeOnce) {
    EXPECT_EQ(Library::instance(), Library::instance());
    EXPECT_EQ(Library::instance()->getPriority(), 1073741824);
    EXPECT_NE(Library::instance()->getClassName().find("zelNet::Library"), std::string::npos);
}

TEST_F(LibraryTest, IsMadeOnceByTwoThreads) {
    Library* first = nullptr;
    Library* second = nullptr;
    std::thread other([&] { first = Library::instance(); });
    second = Library::instance();
    other.join();
    EXPECT_EQ(first, second);
}

TEST_F(LibraryTest, IgnoresSigPipeWhileItLives) {
    zelNet::TCPSocket socket;
    socket.select(0); // any operation
    EXPECT_EQ(sigPipeHandler(), SIG_IGN);
    endLibrary();
    EXPECT_EQ(sigPipeHandler(), SIG_DFL);
}

TEST_F(LibraryTest, LeavesTheApplicationsHandler) {
    struct sigaction action {};
    action.sa_handler = otherHandler;
    action.sa_flags = SA_RESTART;
    sigaction(SIGPIPE, &action, nullptr);
    (void)Library::instance();
    EXPECT_EQ(sigPipeHandler(), otherHandler);
    endLibrary();
    EXPECT_EQ(sigPipeHandler(), otherHandler);
    sigaction(SIGPIPE, nullptr, &action);
    EXPECT_NE(action.sa_flags & SA_RESTART, 0);
}

TEST_F(LibraryTest, LeavesAHandlerThatCameLater) {
    (void)Library::instance();
    std::signal(SIGPIPE, otherHandler);
    endLibrary();
    EXPECT_EQ(sigPipeHandler(), otherHandler);
}

TEST_F(LibraryTest, DeinitWithoutInitChangesNothing) {
    Library* library = Library::instance();
    library->deinitSockets();
    std::signal(SIGPIPE, SIG_IGN);
    library->deinitSockets();
    EXPECT_EQ(sigPipeHandler(), SIG_IGN);
    library->initSockets();
    library->deinitSockets();
    EXPECT_EQ(sigPipeHandler(), SIG_DFL);
}

TEST_F(LibraryTest, AShutdownOfTheServicesEndsIt) {
    Library* library = Library::instance();
    zel::Singleton* service = library;
    service->_shutdown();
    EXPECT_EQ(sigPipeHandler(), SIG_DFL);
    EXPECT_NE(Library::instance(), library);
    EXPECT_EQ(sigPipeHandler(), SIG_IGN);
}

TEST_F(LibraryTest, ReadsAddresses) {
    EXPECT_EQ(Library::getHostByName("127.0.0.1", 80), IPAddress(zelTest::Loopback, 80));
    EXPECT_EQ(Library::getHostByName("255.255.255.255", 80), IPAddress(0xFFFFFFFF, 80));
}

TEST_F(LibraryTest, FindsNames) {
    EXPECT_EQ(Library::getHostByName("localhost", 80).host & 0xFF, 127U);
}

TEST_F(LibraryTest, UnknownNamesFail) {
    const auto find = [] { (void)Library::getHostByName("no such name", 80); };
    EXPECT_THROW(find(), zelNet::NetError);
    EXPECT_EQ(whatOf(find), "Sockets::GetHostByName(): gethostbyname() failed");
    EXPECT_EQ(whatOf([] { (void)Library::getHostByName(nullptr, 80); }),
              "Sockets::GetHostByName(): pointer passed as argument is 0");
}

} // namespace
