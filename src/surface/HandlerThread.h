#pragma once

#include "threads/SignalBlock.h"

#include <zel/Thread.h>

#include <atomic>
#include <exception>
#include <functional>
#include <thread>
#include <utility>

namespace zelIO {

/// Runs functions for another thread, which waits meanwhile: those of civetweb have a stack of 100 KB, in
/// which neither a script nor a deep tree has room.
/// @threads run: one thread at a time
class HandlerThread {
public:
    using Function = std::function<void()>;

    HandlerThread() {
        const zel::SignalBlock signalsWait; // for the thread, which takes it over
        m_thread = std::thread(&HandlerThread::serve, this);
    }
    HandlerThread(const HandlerThread&) = delete;
    HandlerThread& operator=(const HandlerThread&) = delete;
    ~HandlerThread() {
        run({});
        m_thread.join();
    }

    /// @param function  what it throws comes out here; an empty one ends the thread
    void run(const Function& function) {
        // Release and acquire: each side sees what the other one has written when it takes over.
        m_function.store(&function, std::memory_order_release);
        m_function.notify_one();
        m_function.wait(&function, std::memory_order_acquire);
        if (m_failure)
            std::rethrow_exception(std::exchange(m_failure, nullptr));
    }

    [[nodiscard]] bool isCurrent() const noexcept { return std::this_thread::get_id() == m_thread.get_id(); }

private:
    void serve() {
        zel::Thread::registerAsZelThread();
        for (bool goesOn = true; goesOn;) {
            m_function.wait(nullptr, std::memory_order_acquire);
            const Function& function = *m_function.load(std::memory_order_acquire);
            goesOn = static_cast<bool>(function);
            if (goesOn)
                call(function);
            else
                zel::Thread::unregisterAsZelThread();
            m_function.store(nullptr, std::memory_order_release);
            m_function.notify_one();
        }
    }

    void call(const Function& function) noexcept {
        try {
            function();
        } catch (...) {
            m_failure = std::current_exception();
        }
    }

    std::atomic<const Function*> m_function{nullptr}; // written by both in turn
    std::exception_ptr m_failure;                     // the same
    std::thread m_thread;
};

} // namespace zelIO
