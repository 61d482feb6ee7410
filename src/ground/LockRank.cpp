#include <zel/LockRank.h>
#include <zel/Verify.h>

#include <sched.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iterator>

namespace zel {

namespace {

constexpr const char* Names[] = {
    "TreeGate",   "TrackOutput",  "TrackQueue",    "TrackInput",        "FrameReader",      "FrameStream",
    "TypeSystem", "ModelPlaces",  "Services",      "Statistics",        "GlobalResult",     "ThreadStart",
    "Waiters",    "TaskEdges",    "ActiveTasks",   "RegisteredThreads", "SharedJobs",       "PushedJobs",
    "Sleep",      "ReaderWriter", "CommandServer", "WebServer",         "WebSocketServers", "AllowedHosts",
    "OnceTold",   "Notify",       "ThreadRecords", "LogChunks",         "Observers",        "Singletons",
    "Names"};
static_assert(std::size(Names) == static_cast<size_t>(LockRank::Names) + 1);

struct HeldLock {
    const void* lock;
    LockRank rank;
};

/// The locks that this thread holds, in the order in which it took them. Plain data, which lives as long as
/// the thread.
struct HeldLocks {
    std::array<HeldLock, 64> locks;
    size_t size;
};
constinit thread_local HeldLocks t_held{};

const char* nameOf(LockRank rank) {
    return Names[static_cast<size_t>(rank)];
}

/// Several queues are held only by the one thread that holds the active tasks, so nobody waits for it in
/// turn.
template <typename Iterator>
bool maySeveralBeHeld(Iterator begin, Iterator end, const HeldLock& held, LockRank rank) {
    return rank == LockRank::SharedJobs && held.rank == rank &&
           std::any_of(begin, end, [](const HeldLock& other) { return other.rank == LockRank::ActiveTasks; });
}

/// Whether each thread is to step aside ahead of each lock, so that others come in between more often.
bool yieldsAtLocks() {
    static const bool yields = std::getenv("ZEL_YIELD_AT_LOCKS") != nullptr; // NOLINT(concurrency-mt-unsafe)
    return yields;
}

} // namespace

void detail::enterLock(LockRank rank, const void* lock, bool waits, bool recursive) {
    const auto begin = t_held.locks.begin(), end = begin + static_cast<std::ptrdiff_t>(t_held.size);
    const bool again = std::any_of(begin, end, [lock](const HeldLock& held) { return held.lock == lock; });
    if (waits && again && !recursive) {
        t_held.size = 0;
        zelAbort("a thread that holds the lock '%s' takes it again, and would wait for itself", nameOf(rank));
    }
    if (waits && !again)
        for (auto held = begin; held != end; ++held)
            if (held->rank >= rank && !maySeveralBeHeld(begin, end, *held, rank)) {
                // What is reported takes locks itself.
                const LockRank before = held->rank;
                t_held.size = 0;
                zelAbort("a thread that holds the lock '%s' takes the lock '%s', which comes before it",
                         nameOf(before),
                         nameOf(rank));
            }
    if (waits && yieldsAtLocks())
        sched_yield();
    zelVerify(t_held.size < t_held.locks.size());
    t_held.locks[t_held.size++] = {lock, rank};
}

void detail::leaveLock(const void* lock) noexcept {
    for (size_t i = t_held.size; i-- != 0;)
        if (t_held.locks[i].lock == lock) {
            std::copy(t_held.locks.begin() + static_cast<std::ptrdiff_t>(i) + 1,
                      t_held.locks.begin() + static_cast<std::ptrdiff_t>(t_held.size),
                      t_held.locks.begin() + static_cast<std::ptrdiff_t>(i));
            --t_held.size;
            return;
        }
}

} // namespace zel
