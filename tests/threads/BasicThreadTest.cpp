#include <zel/BasicThread.h>

#include <sched.h>
#include <unistd.h>

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/asan_interface.h>
#endif

#include <atomic>
#include <functional>
#include <thread>

namespace {

struct Running : zel::BasicThread {
    explicit Running(std::function<void()> work) : m_work(std::move(work)) {}
    void run() override { m_work(); }

private:
    std::function<void()> m_work;
};

/// Tells AddressSanitizer that the frames of a cancelled thread are left: it does not follow their unwinding.
struct Leaving {
    ~Leaving() {
#ifdef __SANITIZE_ADDRESS__
        __asan_handle_no_return();
#endif
    }
};

} // namespace

TEST(BasicThreadTest, StatesHaveTheirNumbers) {
    using State = zel::BasicThread::State;
    EXPECT_EQ(static_cast<unsigned>(State::NotStarted), 0U);
    EXPECT_EQ(static_cast<unsigned>(State::Running), 1U);
    EXPECT_EQ(static_cast<unsigned>(State::Detached), 2U);
    EXPECT_EQ(static_cast<unsigned>(State::Finished), 3U);
    EXPECT_EQ(static_cast<unsigned>(State::Joined), 4U);
    EXPECT_EQ(static_cast<unsigned>(State::Cancelled), 5U);
}

TEST(BasicThreadTest, GoesFromNotStartedToJoined) {
    std::atomic<zel::BasicThread::State> during{};
    Running* self = nullptr;
    Running thread([&] { during = self->getState(); });
    self = &thread;
    EXPECT_EQ(thread.getState(), zel::BasicThread::State::NotStarted);
    EXPECT_TRUE(thread.start());
    EXPECT_TRUE(thread.join());
    EXPECT_EQ(during.load(), zel::BasicThread::State::Running);
    EXPECT_EQ(thread.getState(), zel::BasicThread::State::Joined);
}

TEST(BasicThreadTest, WithoutAThreadThereIsNothingToJoinDetachOrCancel) {
    Running thread([] {});
    EXPECT_FALSE(thread.join());
    EXPECT_FALSE(thread.detach());
    EXPECT_FALSE(thread.cancel());
}

TEST(BasicThreadTest, SecondStartIsRefused) {
    Running thread([] {});
    EXPECT_TRUE(thread.start());
    EXPECT_FALSE(thread.start());
    thread.join();
    EXPECT_TRUE(thread.start());
    thread.join();
}

TEST(BasicThreadTest, DetachedThreadRunsOn) {
    static std::atomic<bool> finished{false};
    static Running thread([] { finished.store(true, std::memory_order_release); });
    ASSERT_TRUE(thread.start());
    EXPECT_TRUE(thread.detach());
    while (!finished.load(std::memory_order_acquire))
        std::this_thread::yield();
    EXPECT_FALSE(thread.join());
    // Also if it had ended before it was detached.
    while (thread.getState() != zel::BasicThread::State::Finished)
        std::this_thread::yield();
}

TEST(BasicThreadTest, AThreadThatHasEndedStaysFinishedWhenItIsDetached) {
    Running thread([] {});
    ASSERT_TRUE(thread.start());
    while (thread.getState() != zel::BasicThread::State::Finished)
        std::this_thread::yield();
    EXPECT_TRUE(thread.detach());
    EXPECT_EQ(thread.getState(), zel::BasicThread::State::Finished);
}

TEST(BasicThreadTest, AThreadIsDetachedFromTheCallOnUntilItsEnd) {
    static std::atomic<bool> goOn{false};
    static Running thread([] {
        while (!goOn.load(std::memory_order_acquire))
            std::this_thread::yield();
    });
    ASSERT_TRUE(thread.start());
    EXPECT_TRUE(thread.detach());
    EXPECT_EQ(thread.getState(), zel::BasicThread::State::Detached);
    goOn.store(true, std::memory_order_release);
    while (thread.getState() != zel::BasicThread::State::Finished)
        std::this_thread::yield();
}

TEST(BasicThreadTest, CancelledThreadEndsAtItsNextCancellationPoint) {
    Running thread([] {
        const Leaving leaving;
        for (;;)
            pause();
    });
    ASSERT_TRUE(thread.start());
    while (thread.getState() != zel::BasicThread::State::Running)
        std::this_thread::yield();
    EXPECT_TRUE(thread.cancel());
    EXPECT_EQ(thread.getState(), zel::BasicThread::State::Cancelled);
    EXPECT_TRUE(thread.join());
}

TEST(BasicThreadTest, AffinityOfTheCallerWithoutAThread) {
    cpu_set_t before;
    ASSERT_EQ(sched_getaffinity(0, sizeof(before), &before), 0);
    size_t processor = 0;
    while (!CPU_ISSET(processor, &before))
        ++processor;
    std::thread([processor] {
        Running none([] {});
        EXPECT_TRUE(none.setThreadAffinity(zel::uint64{1} << processor));
        cpu_set_t after;
        ASSERT_EQ(sched_getaffinity(0, sizeof(after), &after), 0);
        EXPECT_EQ(CPU_COUNT(&after), 1);
        EXPECT_FALSE(none.setThreadAffinity(0));
    }).join();
}

TEST(BasicThreadTest, HandleIsThatOfPthreads) {
    EXPECT_NE(pthread_equal(zel::BasicThread::getCurrentThreadHandle(), pthread_self()), 0);
}

TEST(BasicThreadDeathTest, DestroyingAJoinableThreadEndsTheProcess) {
    EXPECT_DEATH(
        {
            std::atomic<bool> running{false};
            Running thread([&running] {
                running.store(true, std::memory_order_release);
                for (;;)
                    pause();
            });
            thread.start();
            while (!running.load(std::memory_order_acquire))
                std::this_thread::yield();
        },
        "terminate called");
}
