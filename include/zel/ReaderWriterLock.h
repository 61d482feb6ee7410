#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/LockRank.h>

#include <condition_variable>
#include <mutex>

namespace zel {

/// A lock for many readers or one writer. A new reader does not wait for a waiting writer, so writers may
/// starve under steady reading. Not recursive for writers. Fits std::shared_lock and std::unique_lock.
/// @threads any thread; whoever locked unlocks
class ZEL_CORE_API ReaderWriterLock {
public:
    ReaderWriterLock() = default;
    ReaderWriterLock(const ReaderWriterLock&) = delete;
    ReaderWriterLock& operator=(const ReaderWriterLock&) = delete;

    /// Waits while a writer holds the lock.
    void lock_shared();
    void unlock_shared();
    /// Waits until there is neither a writer nor a reader.
    void lock();
    void unlock();

private:
    uint64 m_numReaders = 0; // guarded by m_mutex
    bool m_writer = false;   // guarded by m_mutex
    RankedMutex<LockRank::ReaderWriter> m_mutex;
    std::condition_variable m_condition;
};

} // namespace zel
