#include <zel/ReaderWriterLock.h>

#include <atomic>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <vector>

TEST(ReaderWriterLockTest, ReadersShare) {
    zel::ReaderWriterLock lock;
    const std::shared_lock first(lock);
    std::thread([&lock] { const std::shared_lock second(lock); }).join();
}

TEST(ReaderWriterLockTest, WriterIsAlone) {
    constexpr int Rounds = 2000;
    zel::ReaderWriterLock lock;
    std::atomic<int> inside{0};
    int counter = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&, i] {
            for (int round = 0; round < Rounds; ++round) {
                if (i % 2 == 0) {
                    const std::unique_lock writing(lock);
                    EXPECT_EQ(inside.fetch_add(1), 0);
                    ++counter;
                    inside.fetch_sub(1);
                } else {
                    const std::shared_lock reading(lock);
                    EXPECT_GE(counter, 0);
                }
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(counter, 2 * Rounds);
}

TEST(ReaderWriterLockTest, NewReaderDoesNotWaitForAWaitingWriter) {
    zel::ReaderWriterLock lock;
    std::atomic<bool> written{false};
    lock.lock_shared();
    std::thread writer([&] {
        lock.lock();
        written = true;
        lock.unlock();
    });
    for (int i = 0; i < 1000; ++i) {
        lock.lock_shared();
        lock.unlock_shared();
    }
    EXPECT_FALSE(written);
    lock.unlock_shared();
    writer.join();
    EXPECT_TRUE(written);
}
