#include "GateExemption.h"

#include <zel/Integers.h>
#include <zel/LockRank.h>
#include <zel/TreeGate.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>

namespace zel {

namespace {

/// Who is inside, and who waits. Those who wait for the other kind to leave go in together when it has left;
/// who comes later waits for the next turn.
class TreeGate {
public:
    void enterChange() {
        std::unique_lock lock(m_mutex);
        if (m_numChanges == 0 && !mayChange()) {
            ++m_numWaitingChanges;
            m_changesMayGo.wait(lock, [this] { return m_numChanges != 0 || mayChange(); });
            --m_numWaitingChanges;
        }
        ++m_numChanges;
    }

    void leaveChange() {
        const std::lock_guard lock(m_mutex);
        if (--m_numChanges != 0)
            return;
        m_numAdmittedLooks = m_numWaitingLooks;
        notify();
    }

    [[nodiscard]] bool enterLook(double patience) {
        std::unique_lock lock(m_mutex);
        if (m_numChanges != 0 || m_numWaitingChanges != 0) {
            ++m_numWaitingLooks;
            const bool isAdmitted = m_looksMayGo.wait_for(
                lock, std::chrono::duration<double>(patience), [this] { return m_numAdmittedLooks != 0; });
            --m_numWaitingLooks;
            if (!isAdmitted)
                return false;
            --m_numAdmittedLooks;
        }
        ++m_numLooks;
        return true;
    }

    void leaveLook() {
        const std::lock_guard lock(m_mutex);
        --m_numLooks;
        notify();
    }

private:
    [[nodiscard]] bool mayChange() const noexcept { return m_numLooks == 0 && m_numAdmittedLooks == 0; }

    void notify() {
        if (m_numAdmittedLooks != 0)
            m_looksMayGo.notify_all();
        else if (m_numWaitingChanges != 0 && mayChange())
            m_changesMayGo.notify_all();
    }

    std::mutex m_mutex; // no rank: nothing is taken below it, and what it guards has one
    std::condition_variable m_changesMayGo;
    std::condition_variable m_looksMayGo;
    size_t m_numChanges = 0;
    size_t m_numLooks = 0;
    size_t m_numWaitingChanges = 0;
    size_t m_numWaitingLooks = 0;
    size_t m_numAdmittedLooks = 0; ///< of those that wait
};

/// Never destroyed: threads that outlive the end of the program may still pass.
TreeGate& treeGate() {
    static auto& s_gate = *new TreeGate;
    return s_gate;
}

thread_local size_t t_numChanges = 0;
thread_local size_t t_numLooks = 0;
thread_local size_t t_numExemptions = 0;

void enterRank() {
#ifdef ZEL_CHECK_LOCK_RANKS
    detail::enterLock(LockRank::TreeGate, &treeGate(), true);
#endif
}

void leaveRank() noexcept {
#ifdef ZEL_CHECK_LOCK_RANKS
    detail::leaveLock(&treeGate());
#endif
}

} // namespace

GateExemption::GateExemption() noexcept {
    ++t_numExemptions;
}

GateExemption::~GateExemption() {
    --t_numExemptions;
}

TreeChange::TreeChange() : m_hasEntered(t_numChanges == 0 && t_numLooks == 0 && t_numExemptions == 0) {
    if (m_hasEntered) {
        enterRank();
        treeGate().enterChange();
    }
    ++t_numChanges;
}

TreeChange::~TreeChange() {
    --t_numChanges;
    if (m_hasEntered) {
        treeGate().leaveChange();
        leaveRank();
    }
}

bool TreeChange::isUnderWay() noexcept {
    return t_numChanges != 0;
}

TreeLook::TreeLook(double patience) : m_hasEntered(t_numChanges == 0 && t_numLooks == 0) {
    if (m_hasEntered) {
        enterRank();
        if (!treeGate().enterLook(patience)) {
            leaveRank();
            throw std::runtime_error("The tree of objects is being changed, for longer than one may wait");
        }
    }
    ++t_numLooks;
}

TreeLook::~TreeLook() {
    --t_numLooks;
    if (m_hasEntered) {
        treeGate().leaveLook();
        leaveRank();
    }
}

} // namespace zel
