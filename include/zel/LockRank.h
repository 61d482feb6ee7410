#pragma once

#include <zel/Export.h>

#include <condition_variable>
#include <mutex>
#include <type_traits>
#include <utility>

namespace zel {

/// The order in which a thread takes the long-lived locks of the library: while it holds one, it takes only
/// locks that stand further down, or once more a recursive one that it holds. Every such lock stands here;
/// builds with the CMake option ZEL_CHECK_LOCK_RANKS, as those with sanitizers, end with
/// both names where a thread breaks the order, or takes again what it holds and is not recursive. With the
/// environment variable ZEL_YIELD_AT_LOCKS each thread steps aside ahead of each lock there.
enum class LockRank : unsigned char {
    TreeGate,          ///< the gate between who changes the tree of objects and who looks at it from outside
    TrackOutput,       ///< the writer of a track of frames
    TrackQueue,        ///< the queue and cache of a track
    TrackInput,        ///< the reader of a track
    FrameReader,       ///< the place of a reader in its session
    FrameStream,       ///< the clients or the frames of a stream through WebSockets; the writer's recursive
    TypeSystem,        ///< types, models, plug-ins, libraries; recursive
    ModelPlaces,       ///< the places of model files
    Services,          ///< the making of services; recursive
    Statistics,        ///< the tree of statistics
    GlobalResult,      ///< the list of a global result's buffers
    ThreadStart,       ///< a thread that is being started
    Waiters,           ///< the jobs that others wait for
    TaskEdges,         ///< which edges of tasks count in a run
    ActiveTasks,       ///< active tasks, sleeping threads, changes of the number of threads
    RegisteredThreads, ///< the threads that the system knows
    SharedJobs,        ///< a thread's queue that others steal from; several of them under ActiveTasks
    PushedJobs,        ///< a thread's queue that others push to
    Sleep,             ///< the sleep of one thread
    ReaderWriter,      ///< the inside of a lock for readers and writers
    CommandServer,     ///< the settings and handlers of the command server
    WebServer,         ///< the thread and the port of a server of web pages
    WebSocketServers,  ///< the list of WebSocket servers
    AllowedHosts,      ///< the names of this machine
    OnceTold,          ///< a message that is told once
    Notify,            ///< the way of a message to its streams and callbacks
    ThreadRecords,     ///< a thread's timers, log and timeline
    LogChunks,         ///< the logs of threads that have ended
    Observers,         ///< the observers of one object
    Singletons,        ///< the list of services
    Names,             ///< the cache of names
};

namespace detail {
ZEL_CORE_API void enterLock(LockRank rank, const void* lock, bool waits, bool recursive = false);
ZEL_CORE_API void leaveLock(const void* lock) noexcept;
} // namespace detail

/// A lock that knows its rank. Fits std::lock_guard and std::unique_lock, by deduction of the argument: the
/// lock inside can not be had, so that no road passes the check.
/// @threads any thread; whoever locked unlocks
template <LockRank Rank, typename Mutex = std::mutex>
class RankedMutex {
public:
    constexpr RankedMutex() noexcept(noexcept(Mutex())) = default;
    RankedMutex(const RankedMutex&) = delete;
    RankedMutex& operator=(const RankedMutex&) = delete;

    void lock() {
#ifdef ZEL_CHECK_LOCK_RANKS
        detail::enterLock(Rank, this, true, std::is_same_v<Mutex, std::recursive_mutex>);
#endif
        m_mutex.lock();
    }

    /// Never waits, so the order does not matter.
    [[nodiscard]] bool try_lock() {
        const bool locked = m_mutex.try_lock();
#ifdef ZEL_CHECK_LOCK_RANKS
        if (locked)
            detail::enterLock(Rank, this, false);
#endif
        return locked;
    }

    void unlock() {
#ifdef ZEL_CHECK_LOCK_RANKS
        detail::leaveLock(this);
#endif
        m_mutex.unlock();
    }

    /// Waits for the condition, with the lock given back meanwhile. The caller holds it.
    template <typename Predicate>
    void wait(std::condition_variable& condition, Predicate&& predicate) {
        // The caller's lock in the end, also where the thread is cancelled while it waits.
        struct Borrowed {
            ~Borrowed() { lock.release(); }
            std::unique_lock<Mutex> lock;
        } borrowed{std::unique_lock<Mutex>(m_mutex, std::adopt_lock)};
        condition.wait(borrowed.lock, std::forward<Predicate>(predicate));
    }

private:
    Mutex m_mutex;
};

/// The mutex of types, models and plug-ins.
using TypeSystemMutex = RankedMutex<LockRank::TypeSystem, std::recursive_mutex>;

} // namespace zel
