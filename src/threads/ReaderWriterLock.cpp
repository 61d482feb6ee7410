#include <zel/ReaderWriterLock.h>

namespace zel {

void ReaderWriterLock::lock_shared() {
    const std::lock_guard lock(m_mutex);
    m_mutex.wait(m_condition, [this] { return !m_writer; });
    ++m_numReaders;
}

void ReaderWriterLock::unlock_shared() {
    const std::lock_guard lock(m_mutex);
    if (--m_numReaders == 0)
        m_condition.notify_all();
}

void ReaderWriterLock::lock() {
    const std::lock_guard lock(m_mutex);
    m_mutex.wait(m_condition, [this] { return !m_writer && m_numReaders == 0; });
    m_writer = true;
}

void ReaderWriterLock::unlock() {
    const std::lock_guard lock(m_mutex);
    m_writer = false;
    m_condition.notify_all();
}

} // namespace zel
