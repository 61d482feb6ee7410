#include <zel/Job.h>
#include <zel/Thread.h>

#include <algorithm>

// The queue of a thread.

namespace zel {

void Thread::JobQueue::push(Job* job) {
    const uint32 priority = job->getPriority();
    if (rowEmpty()) {
        m_row.clear();
        m_first = 0;
        m_rowPriority = priority;
    } else if (priority != m_rowPriority) {
        if (m_heap.size() == m_heap.capacity())
            grow();
        m_heap.push_back(Entry{job, priority, m_numPushed++});
        std::push_heap(m_heap.begin(), m_heap.end(), isWorse);
        return;
    }
    if (m_row.size() == m_row.capacity()) {
        // The places of those that are gone serve again.
        if (m_first > m_row.size() / 2) {
            m_row.erase(m_row.begin(), m_row.begin() + m_first);
            m_first = 0;
        } else {
            grow();
        }
    }
    // One that may have to be put back must not be looked for: its equals go ahead.
    m_row.push_back(Place{job, job->getSyncTag() == nullptr ? job->getHome() : Job::NoHome});
}

/// Makes room for twice as many jobs on both sides: which of them have the priority of the row is different
/// from run to run, and a run like the one before is to allocate nothing.
void Thread::JobQueue::grow() {
    const size_t wanted = std::max<size_t>(2 * size(), 32);
    m_heap.reserve(wanted);
    m_row.reserve(2 * wanted);
}

Job* Thread::JobQueue::pop(uint32 home) {
    if (!rowIsBest())
        return popHeap();
    size_t index = m_first;
    if (m_row[index].home != Job::NoHome) {
        const size_t end = std::min(m_row.size(), m_first + Reach);
        while (index < end && m_row[index].home != home)
            ++index;
        if (index == end)
            index = m_first;
    }
    return takeOut(index);
}

Job* Thread::JobQueue::popFor(uint32 home) {
    if (!rowIsBest())
        return popHeap();
    if (m_row.back().home == Job::NoHome)
        return takeOut(m_first);
    const size_t end = m_row.size() - std::min(m_row.size() - m_first, Reach);
    size_t index = m_row.size();
    while (index > end && m_row[index - 1].home != home)
        --index;
    return takeOut(index > end ? index - 1 : m_row.size() - 1);
}

Job* Thread::JobQueue::popHeap() {
    std::pop_heap(m_heap.begin(), m_heap.end(), isWorse);
    Job* const job = m_heap.back().job;
    m_heap.pop_back();
    return job;
}

/// Takes one out of the row, and closes the gap from the nearer end.
Job* Thread::JobQueue::takeOut(size_t index) {
    Place* const row = m_row.data();
    Job* const job = row[index].job;
    if (index - m_first < m_row.size() - index) {
        std::copy_backward(row + m_first, row + index, row + index + 1);
        ++m_first;
    } else {
        std::copy(row + index + 1, row + m_row.size(), row + index);
        m_row.pop_back();
    }
    return job;
}

void Thread::JobQueue::clear() noexcept {
    m_row = VectorPOD<Place>();
    m_heap = VectorPOD<Entry>();
    m_first = 0;
}

} // namespace zel
