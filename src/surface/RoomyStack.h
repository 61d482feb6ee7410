#pragma once

#include <zel/Verify.h>

#include <sys/mman.h>
#include <ucontext.h>

#include <cstddef>
#include <exception>
#include <functional>
#include <utility>

#ifdef __SANITIZE_ADDRESS__
#define ZEL_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZEL_ADDRESS_SANITIZER 1
#endif
#endif
#ifdef ZEL_ADDRESS_SANITIZER
#include <sanitizer/common_interface_defs.h>
#endif

namespace zelIO {

/// A stack on which a thread runs functions that need more room than its own has: those of civetweb have
/// 100 KB, in which neither a script nor a deep tree has room. Another thread would do as well, but each call
/// would wait for two threads to wake up, which takes longer than most answers.
/// @threads one thread at a time
class RoomyStack {
public:
    /// In bytes; memory is taken as far as it is used. The longest path that fits in a request may lead
    /// through pointers in circles, and takes a tenth of it.
    static constexpr std::size_t Size = std::size_t{64} << 20;

    RoomyStack()
        : m_memory(::mmap(nullptr,
                          GuardSize + Size,
                          PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK,
                          -1,
                          0)) {
        zelVerify(m_memory != MAP_FAILED);
        zelVerify(::mprotect(m_memory, GuardSize, PROT_NONE) == 0);
    }
    RoomyStack(const RoomyStack&) = delete;
    RoomyStack& operator=(const RoomyStack&) = delete;
    ~RoomyStack() { ::munmap(m_memory, GuardSize + Size); }

    /// Calls the function, and returns or throws when it does.
    void run(const std::function<void()>& function) {
        m_function = &function;
        t_current = this;
        ucontext_t callee{};
        zelVerify(::getcontext(&callee) == 0);
        callee.uc_stack.ss_sp = bottom();
        callee.uc_stack.ss_size = Size;
        callee.uc_link = &m_caller;
        ::makecontext(&callee, &RoomyStack::enter, 0);
        void* fakeStack = nullptr;
        leaveStack(&fakeStack, bottom(), Size);
        zelVerify(::swapcontext(&m_caller, &callee) == 0);
        arriveOnStack(fakeStack, nullptr, nullptr);
        t_current = nullptr;
        if (m_failure)
            std::rethrow_exception(std::exchange(m_failure, nullptr));
    }

    /// Whether the calling thread runs a function on this stack.
    [[nodiscard]] bool isCurrent() const noexcept { return t_current == this; }

private:
    static constexpr std::size_t GuardSize = 4096;

    [[nodiscard]] void* bottom() const noexcept { return static_cast<std::byte*>(m_memory) + GuardSize; }

    static void enter() noexcept {
        RoomyStack& self = *t_current;
        arriveOnStack(nullptr, &self.m_callerBottom, &self.m_callerSize);
        try {
            (*self.m_function)();
        } catch (...) {
            self.m_failure = std::current_exception();
        }
        leaveStack(nullptr, self.m_callerBottom, self.m_callerSize);
    }

    // What AddressSanitizer has to know.
    static void leaveStack([[maybe_unused]] void** fakeStack,
                           [[maybe_unused]] const void* bottom,
                           [[maybe_unused]] std::size_t size) {
#ifdef ZEL_ADDRESS_SANITIZER
        __sanitizer_start_switch_fiber(fakeStack, bottom, size);
#endif
    }
    static void arriveOnStack([[maybe_unused]] void* fakeStack,
                              [[maybe_unused]] const void** bottom,
                              [[maybe_unused]] std::size_t* size) {
#ifdef ZEL_ADDRESS_SANITIZER
        __sanitizer_finish_switch_fiber(fakeStack, bottom, size);
#endif
    }

    static inline thread_local RoomyStack* t_current = nullptr;

    void* m_memory;
    const std::function<void()>* m_function = nullptr;
    ucontext_t m_caller{};
    std::exception_ptr m_failure;
    const void* m_callerBottom = nullptr;
    std::size_t m_callerSize = 0;
};

} // namespace zelIO
