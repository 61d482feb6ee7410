#include <zel/SpinMutex.h>

#include <gtest/gtest.h>

#include <mutex>
#include <thread>
#include <vector>

namespace {

TEST(SpinMutexTest, TryLockFailsWhileItIsHeld) {
    zel::SpinMutex mutex;
    ASSERT_TRUE(mutex.try_lock());
    EXPECT_FALSE(mutex.try_lock());
    mutex.unlock();
    EXPECT_TRUE(mutex.try_lock());
    mutex.unlock();
}

TEST(SpinMutexTest, ACopyIsAFreshLock) {
    zel::SpinMutex held;
    held.lock();
    zel::SpinMutex copy(held);
    EXPECT_TRUE(copy.try_lock());
    copy.unlock();
    copy = held;
    EXPECT_TRUE(copy.try_lock());
    EXPECT_FALSE(held.try_lock());
    copy.unlock();
    held.unlock();
}

TEST(SpinMutexStressTest, KeepsAPlainCounterExact) {
    for (const int numThreads : {1, 2, 8}) {
        constexpr int PerThread = 20'000;
        zel::SpinMutex mutex;
        int counter = 0;
        std::vector<std::thread> threads;
        for (int t = 0; t < numThreads; ++t)
            threads.emplace_back([&] {
                for (int i = 0; i < PerThread; ++i) {
                    const std::lock_guard lock(mutex);
                    ++counter;
                }
            });
        for (auto& thread : threads)
            thread.join();
        EXPECT_EQ(counter, numThreads * PerThread);
    }
}

} // namespace
