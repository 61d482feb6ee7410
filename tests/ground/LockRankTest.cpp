#include <zel/LockRank.h>

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <thread>

using zel::LockRank;
using zel::RankedMutex;
using zel::detail::enterLock;
using zel::detail::leaveLock;

// The check is compiled into the locks with ZEL_CHECK_LOCK_RANKS alone; it is here in every build.

TEST(LockRankTest, LocksAreTakenInTheOrderOfTheirRanks) {
    const int types = 0, names = 0;
    enterLock(LockRank::TypeSystem, &types, true);
    enterLock(LockRank::Names, &names, true);
    leaveLock(&types);
    leaveLock(&names);
    enterLock(LockRank::TypeSystem, &types, true);
    leaveLock(&types);
}

TEST(LockRankTest, ARecursiveLockMayBeTakenAgainBehindOthers) {
    const int types = 0, names = 0;
    enterLock(LockRank::TypeSystem, &types, true);
    enterLock(LockRank::Names, &names, true);
    enterLock(LockRank::TypeSystem, &types, true, true);
    leaveLock(&types);
    leaveLock(&names);
    leaveLock(&types);
    enterLock(LockRank::Notify, &names, true);
    leaveLock(&names);
}

TEST(LockRankTest, TryingNeverWaitsAndMayGoAgainstTheOrder) {
    const int types = 0, names = 0;
    enterLock(LockRank::Names, &names, true);
    enterLock(LockRank::TypeSystem, &types, false);
    leaveLock(&types);
    leaveLock(&names);
}

TEST(LockRankTest, EachThreadHoldsItsOwn) {
    const int types = 0, names = 0;
    enterLock(LockRank::Names, &names, true);
    std::thread([&types] {
        enterLock(LockRank::TypeSystem, &types, true);
        leaveLock(&types);
    }).join();
    leaveLock(&names);
}

TEST(LockRankTest, AWaitGivesTheLockBackMeanwhile) {
    RankedMutex<LockRank::Sleep> mutex;
    std::condition_variable condition;
    bool ready = false;
    std::thread other;
    {
        const std::lock_guard lock(mutex);
        other = std::thread([&] {
            const std::lock_guard inner(mutex);
            ready = true;
            condition.notify_one();
        });
        mutex.wait(condition, [&ready] { return ready; });
        bool free = true;
        std::thread([&] { free = mutex.try_lock(); }).join();
        EXPECT_FALSE(free) << "the caller holds the lock again";
    }
    other.join();
    EXPECT_TRUE(mutex.try_lock());
    mutex.unlock();
}

TEST(LockRankDeathTest, TheWrongOrderIsFatalAndNamesBoth) {
    const int types = 0, names = 0;
    enterLock(LockRank::Names, &names, true);
    EXPECT_DEATH(enterLock(LockRank::TypeSystem, &types, true),
                 "a thread that holds the lock 'Names' takes the lock 'TypeSystem', which comes before it");
    leaveLock(&names);
}

TEST(LockRankDeathTest, TwoLocksOfOneRankHaveNoOrder) {
    const int one = 0, other = 0;
    enterLock(LockRank::Observers, &one, true);
    EXPECT_DEATH(
        enterLock(LockRank::Observers, &other, true),
        "a thread that holds the lock 'Observers' takes the lock 'Observers', which comes before it");
    leaveLock(&one);
}

TEST(LockRankDeathTest, ALockThatIsNotRecursiveIsNotTakenAgain) {
    const int queue = 0, names = 0;
    enterLock(LockRank::SharedJobs, &queue, true);
    enterLock(LockRank::Names, &names, true);
    EXPECT_DEATH(enterLock(LockRank::SharedJobs, &queue, true),
                 "a thread that holds the lock 'SharedJobs' takes it again, and would wait for itself");
    leaveLock(&names);
    leaveLock(&queue);
}

#ifdef ZEL_CHECK_LOCK_RANKS
TEST(LockRankDeathTest, ALockKnowsWhetherItIsRecursive) {
    zel::TypeSystemMutex types;
    const std::lock_guard first(types);
    const std::lock_guard second(types);
    RankedMutex<LockRank::Names> names;
    const std::lock_guard lock(names);
    EXPECT_DEATH(names.lock(), "a thread that holds the lock 'Names' takes it again");
}
#endif

TEST(LockRankTest, AWaitThatEndsWithAnExceptionLeavesTheLockToItsHolder) {
    RankedMutex<LockRank::Names> mutex;
    std::condition_variable condition;
    const auto isFree = [&mutex] {
        bool free = false;
        std::thread([&] {
            free = mutex.try_lock();
            if (free)
                mutex.unlock();
        }).join();
        return free;
    };
    {
        const std::lock_guard lock(mutex);
        EXPECT_THROW(mutex.wait(condition, []() -> bool { throw 1; }), int);
        EXPECT_FALSE(isFree());
    }
    EXPECT_TRUE(isFree());
}
