#include "threads/SignalBlock.h"

#include <gtest/gtest.h>

#include <csignal>

namespace {

bool isBlocked(int signal) {
    sigset_t signals;
    EXPECT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &signals), 0);
    return sigismember(&signals, signal) == 1;
}

TEST(SignalBlockTest, LetsSignalsWaitWhileItLives) {
    EXPECT_FALSE(isBlocked(SIGUSR1));
    {
        const zel::SignalBlock block;
        for (const int signal : {SIGUSR1, SIGINT, SIGTERM, SIGPIPE, SIGALRM, SIGCHLD})
            EXPECT_TRUE(isBlocked(signal)) << signal;
    }
    EXPECT_FALSE(isBlocked(SIGUSR1));
}

TEST(SignalBlockTest, LeavesThoseThatTellOfFaults) {
    const zel::SignalBlock block;
    for (const int signal : {SIGILL, SIGTRAP, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGSYS})
        EXPECT_FALSE(isBlocked(signal)) << signal;
}

TEST(SignalBlockTest, BringsBackWhatWasBlocked) {
    {
        const zel::SignalBlock outer;
        { const zel::SignalBlock inner; }
        EXPECT_TRUE(isBlocked(SIGUSR1));
    }
    EXPECT_FALSE(isBlocked(SIGUSR1));
}

} // namespace
