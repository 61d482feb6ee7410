#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/LockRank.h>
#include <zel/Vector.h>

#include <atomic>

namespace zel {

class DeleteHandler;
class Observer;

/// The base of all shared objects: an atomic count of owners and a list of observers that learn of the end.
/// Owned through ref_ptr, watched through observer_ptr. A new object has no owner; copying an object gives a
/// fresh one without owners and observers.
///
/// To destroy an object that still has owners is an error, logged at level Error.
/// @threads any thread for the count; adding and removing observers is guarded, but an observer that goes
/// away
///     on one thread while its target dies on another is outside the contract
class ZEL_CORE_API Referenced {
public:
    Referenced() = default;
    Referenced(const Referenced&) {}
    Referenced& operator=(const Referenced&) { return *this; }
    virtual ~Referenced();

    void reference() const noexcept { m_refCount.fetch_add(1, std::memory_order_seq_cst); }
    /// Disposes of the object when the last owner lets go: by the delete handler if one is installed at that
    /// time, else directly.
    void unreference() const {
        if (m_refCount.fetch_sub(1, std::memory_order_seq_cst) == 1)
            dispose();
    }
    /// Gives up ownership and never deletes.
    void unreference_nodelete() const noexcept { m_refCount.fetch_sub(1, std::memory_order_seq_cst); }
    /// Stores the whole count.
    void setReferenceCount(int count) noexcept { m_refCount.store(count, std::memory_order_seq_cst); }
    [[nodiscard]] int referenceCount() const noexcept { return m_refCount.load(std::memory_order_seq_cst); }

    /// Makes the observer list. The caller holds the observer mutex.
    void allocateObserverVector() const;
    void addObserver(Observer* observer) const;
    /// Removes the first entry of the observer; the later ones keep their order. Absence is no error.
    void removeObserver(Observer* observer) const;

    /// Takes ownership; the old handler is deleted, so no other thread may be letting go of an object
    /// meanwhile. Null means direct deletion.
    static void setDeleteHandler(DeleteHandler* handler);
    [[nodiscard]] static DeleteHandler* getDeleteHandler();
    /// Hands this object to the installed delete handler; without one it is deleted at once.
    void deleteUsingDeleteHandler() const;

private:
    void dispose() const noexcept;
    [[nodiscard]] bool isNotifying() const;

    mutable Vector<Observer*>* m_observers = nullptr; // guarded by m_observerMutex, null until first used
    mutable RankedMutex<LockRank::Observers> m_observerMutex;
    mutable std::atomic<int32> m_refCount{0};
};

/// Decides when objects without owners are deleted.
class ZEL_CORE_API DeleteHandler {
public:
    virtual ~DeleteHandler() = default;
    /// Deletes the object at once; null is ignored. A handler of one's own may defer, and must not throw:
    /// where the last owner lets go, that ends the process.
    virtual void requestDelete(const Referenced* object);
};

} // namespace zel
