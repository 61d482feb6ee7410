#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/LockRank.h>

#include <pthread.h>

#include <atomic>
#include <thread>

namespace zel {

/// A thread of the operating system with an operation to run on it. Derive and override run().
///
/// To destroy an object whose thread was neither joined nor detached ends the process, as std::thread does.
/// @threads start, join, detach and cancel owner thread; getState any thread
class ZEL_CORE_API BasicThread {
public:
    enum class State : uint32 {
        NotStarted = 0,
        Running = 1,
        Detached = 2,
        Finished = 3,
        Joined = 4,
        Cancelled = 5
    };

    BasicThread() = default;
    BasicThread(const BasicThread&) = delete;
    BasicThread& operator=(const BasicThread&) = delete;
    virtual ~BasicThread() = default;

    /// What the new thread does. An exception that leaves it ends the process.
    virtual void run() = 0;

    /// @return false if there is a thread already that was neither joined nor detached
    /// @throws std::system_error if the system refuses a new thread
    bool start();
    /// Waits for the thread's end.
    /// @return false if there is no thread
    /// @throws std::system_error on the thread itself
    bool join();
    /// Lets the thread go on alone; the object must outlive it.
    /// @return false if there is no thread
    bool detach();
    /// Asks the thread to end at its next cancellation point, unwinding its stack; it must still be joined.
    /// @return false if there is no thread or the system refuses
    bool cancel();

    /// Restricts the thread to the processors 0 to 63 whose bits are set; the calling thread if this object
    /// has no thread.
    /// @return whether the system accepted
    bool setThreadAffinity(uint64 mask);

    [[nodiscard]] State getState() const noexcept {
        // Acquire: pairs with the release stores, so that Finished is seen after all that run() wrote.
        return m_state.load(std::memory_order_acquire);
    }
    [[nodiscard]] static pthread_t getCurrentThreadHandle() noexcept { return pthread_self(); }

private:
    void launchThread();
    void setState(State state) noexcept { m_state.store(state, std::memory_order_release); }
    /// @return false if the present state is another one
    bool changeState(State from, State to) noexcept {
        return m_state.compare_exchange_strong(from, to, std::memory_order_acq_rel);
    }

    std::thread m_thread;
    std::atomic<State> m_state{State::NotStarted};   // written by the owner and the new thread
    RankedMutex<LockRank::ThreadStart> m_startMutex; // held by start() until m_thread is set
};

} // namespace zel
