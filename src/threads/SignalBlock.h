#pragma once

#include <zel/Verify.h>

#include <csignal>

namespace zel {

/// Lets the signals of this thread wait while it lives, but those that tell of faults in the program: no
/// handler interrupts a system call meanwhile.
class SignalBlock {
public:
    SignalBlock() {
        sigset_t signals;
        sigfillset(&signals);
        for (const int fault : {SIGILL, SIGTRAP, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGSYS})
            sigdelset(&signals, fault);
        zelVerify(pthread_sigmask(SIG_BLOCK, &signals, &m_old) == 0);
    }
    SignalBlock(const SignalBlock&) = delete;
    SignalBlock& operator=(const SignalBlock&) = delete;
    ~SignalBlock() { zelVerify(pthread_sigmask(SIG_SETMASK, &m_old, nullptr) == 0); }

private:
    sigset_t m_old{};
};

} // namespace zel
