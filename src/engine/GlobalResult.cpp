#include <zel/GlobalResult.h>
#include <zel/Model.h>
#include <zel/Verify.h>
#include <zelData/Format.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>

// The ranges that end up wrong in old memory, and how they are mended, are at the end of the file.

namespace zel {

namespace {

constexpr uint64 Granularity = 64;

constexpr uint64 roundUp(uint64 n) {
    return (n + Granularity - 1) & ~(Granularity - 1);
}

void copyElements(const zelData::Buffer* buffer, void* target, const void* source, uint64 n) {
    if (buffer->hasPlainElements())
        std::memcpy(target, source, n * buffer->getElementSize());
    else
        buffer->getFormat()->copyElements(target, source, n);
}

} // namespace

// Sets

void GlobalResult::BufferSet::reset(uint64 capacity) {
    m_capacity = capacity;
    m_overflows.clear();
    m_failedTransactions.clear();
    m_targets.clear();
}

void GlobalResult::BufferSet::addTarget(zelData::Buffer* buffer) {
    m_targets.push_back(Target{buffer,
                               static_cast<char*>(buffer->getPtr()),
                               buffer->getElementSize() * buffer->getElementArraySize()});
}

void* GlobalResult::BufferSet::getElement(const zelData::Buffer* buffer, uint64 index) const noexcept {
    for (const Target& target : m_targets)
        if (target.buffer == buffer)
            return target.data + index * target.entrySize;
    return nullptr;
}

void GlobalResult::BufferSet::commitRanges(const Vector<IndexRange>& ranges) const {
    for (const OverflowBuffer& overflow : m_overflows) {
        const zelData::Buffer* const buffer = overflow.buffer.get();
        const uint64 arraySize = buffer->getElementArraySize();
        for (const IndexRange& range : ranges) {
            const uint64 begin = range.begin() * arraySize;
            buffer->getFormat()->moveElements(buffer->getElement(begin),
                                              static_cast<char*>(overflow.data) +
                                                  begin * buffer->getElementSize(),
                                              range.size() * arraySize);
        }
    }
}

// Transactions

uint64 GlobalResult::Transaction::getSetIndex() const noexcept {
    return m_set->getIndex();
}

void* GlobalResult::Transaction::getElements(const zelData::Buffer* buffer) const {
    void* const elements = m_set->getElement(buffer, m_range.begin());
    zelVerifyN(elements != nullptr || m_range.empty(),
               "%s: The buffer '%s' is no part of the result",
               m_result->m_path.c_str(),
               buffer == nullptr ? "" : buffer->getPath().c_str());
    return elements;
}

GlobalResult::GlobalResult(uint32 settings, const Path& path)
    : Object(path.back(), ClassModel()), m_settings(settings), m_path(path) {
    zelVerifyN(!((settings & TRUNCATE) && (settings & APPEND)),
               "%s: Can not use both TRUNCATE and APPEND!",
               path.c_str());
    zelVerifyN(((settings & TRUNCATE) || (settings & APPEND)),
               "%s: Must specify either TRUNCATE or APPEND!",
               path.c_str());
}

GlobalResult::~GlobalResult() {
    releaseSets();
}

bool GlobalResult::fits(const BufferSet* set, uint64 end) noexcept {
    return end <= set->getCapacity();
}

uint64 GlobalResult::getCapacity() const noexcept {
    const BufferSet* const set = m_set.load(std::memory_order_acquire); // pairs with overflow
    return set == nullptr ? 0 : set->getCapacity();
}

uint64 GlobalResult::getSetIndex() const noexcept {
    const BufferSet* const set = m_set.load(std::memory_order_acquire); // pairs with overflow
    return set == nullptr ? 0 : set->getIndex();
}

size_t GlobalResult::calculateIncreasedCapacity(size_t current, size_t needed) noexcept {
    return roundUp(current + 2 * needed);
}

GlobalResult::Transaction GlobalResult::allocateResult(size_t count) {
    m_numTransactions.fetch_add(1, std::memory_order_relaxed); // read after the jobs
    return allocate(count);
}

/// Makes room for the range, unless another job has done so meanwhile.
const GlobalResult::BufferSet* GlobalResult::overflow(const IndexRange& range, const BufferSet* set) {
    const std::lock_guard lock(m_mutex);
    const BufferSet* current = m_set.load(std::memory_order_relaxed); // written under the lock
    if (current->getCapacity() < range.end()) {
        handleOverflow(calculateIncreasedCapacity(current->getCapacity(), range.end()));
        ++m_numOverflows;
        current = m_sets.back().get();
        // Release: pairs with the acquire in allocate, so that who sees the set sees its memory.
        m_set.store(current, std::memory_order_release);
    }
    if (current != set)
        reportFailedTransaction(range, set->getIndex());
    return current;
}

void GlobalResult::commit(const zelData::AbstractArray& array,
                          size_t count,
                          const void* data,
                          unsigned sortIndex) {
    const zelData::Buffer* const buffer = array.buffer();
    Transaction transaction = allocate(count);
    const BufferSet* written = nullptr;
    while (count != 0 && written != transaction.m_set) {
        written = transaction.m_set;
        copyElements(buffer, transaction.getElements(buffer), data, count * buffer->getElementArraySize());
        // The target may have moved during the copy.
        if (m_set.load(std::memory_order_acquire) != written) // pairs with the release in overflow
            reportFailedTransaction(&transaction);
    }
    if (sortIndex != InvalidIndex)
        storeSortRange(transaction.getRange(), sortIndex);
}

void GlobalResult::reportCompletedTransaction(Transaction*) {
    m_numCompletedTransactions.fetch_add(1, std::memory_order_relaxed); // read after the jobs
}

void GlobalResult::reportFailedTransaction(Transaction* transaction) {
    const std::lock_guard lock(m_mutex);
    const BufferSet* const current = m_set.load(std::memory_order_relaxed); // written under the lock
    if (transaction->m_set == current)
        return;
    reportFailedTransaction(transaction->m_range, transaction->m_set->getIndex());
    transaction->m_set = current;
}

void GlobalResult::reportFailedTransaction(const IndexRange& range, uint64 setIndex) {
    for (uint64 i = setIndex + 1; i < m_sets.size(); ++i)
        if (m_sets[i]->getCapacity() >= range.begin())
            m_sets[i]->addFailedTransaction(range);
}

// Runs

void GlobalResult::init(const IndexRange& range) {
    releaseSets();
    if (m_sets.empty())
        m_sets.push_back(std::make_unique<BufferSet>(0, range.end()));
    else
        m_sets.front()->reset(range.end());
    m_set.store(m_sets.front().get(), std::memory_order_release); // pairs with allocate
    m_begin = range.begin();
    m_cursor.store(range.begin(), std::memory_order_relaxed); // the jobs' start publishes these
    m_numTransactions.store(0, std::memory_order_relaxed);
    m_numCompletedTransactions.store(0, std::memory_order_relaxed);
    m_isSorted.store(false, std::memory_order_relaxed);
    std::fill(m_sortingTable.begin(), m_sortingTable.end(), IndexRange());
}

GlobalResult::BufferSet* GlobalResult::createNewSet(size_t capacity) {
    m_sets.push_back(std::make_unique<BufferSet>(m_sets.size(), capacity));
    return m_sets.back().get();
}

void GlobalResult::addTarget(zelData::Buffer* buffer) {
    m_sets.back()->addTarget(buffer);
}

void GlobalResult::moveTarget(zelData::Buffer* buffer, uint64 numElements) {
    const uint64 oldNumElements = buffer->size();
    void* const oldData = buffer->kernelOverflowReallocation(numElements);
    m_sets.back()->addOverflow(OverflowBuffer{buffer, oldData, oldNumElements});
    m_sets.back()->addTarget(buffer);
}

uint64 GlobalResult::estimateCapacity(uint64 numEntries, uint64 begin) {
    // A running mean towards 32 that never falls below what there is.
    constexpr double floor = 32;
    m_capacityEstimate =
        std::max(static_cast<double>(numEntries), std::max(floor, 0.85 * m_capacityEstimate + 4.8));
    // What the last run has added is expected again.
    return roundUp(std::max(static_cast<uint64>(std::ceil(m_capacityEstimate)), begin + m_lastCount));
}

void GlobalResult::releaseSets() {
    for (size_t i = m_sets.size(); i-- > 0;) {
        for (const OverflowBuffer& overflow : m_sets[i]->getOverflows())
            overflow.buffer->deleteOverflowBuffer(overflow.data, overflow.numElements);
        if (i != 0)
            m_sets.pop_back(); // the first one is used in each run
    }
    m_set.store(m_sets.empty() ? nullptr : m_sets.front().get(), std::memory_order_relaxed); // no jobs
}

// Sorting

void GlobalResult::prepareResultSorting(size_t numJobs) {
    m_sortingTable.resize(numJobs); // gives memory back below a quarter of the capacity
    std::fill(m_sortingTable.begin(), m_sortingTable.end(), IndexRange());
}

void GlobalResult::setSortIndex(const Transaction& transaction, unsigned sortIndex) {
    storeSortRange(transaction.getRange(), sortIndex);
}

void GlobalResult::storeSortRange(const IndexRange& range, unsigned sortIndex) {
    zelVerifyN(sortIndex < m_sortingTable.size(),
               "%s: The sort index %u is not below the number of jobs, %lu",
               m_path.c_str(),
               sortIndex,
               m_sortingTable.size());
    m_sortingTable[sortIndex] = range;
    // Read after the jobs; all of them store the same, so that one is enough.
    if (!m_isSorted.load(std::memory_order_relaxed))
        m_isSorted.store(true, std::memory_order_relaxed);
}

void GlobalResult::finalizeResultSorting(const IndexRange& range) {
    if (!m_isSorted.load(std::memory_order_relaxed)) // the jobs' end publishes it
        return;
    m_permutation.clear();
    m_permutation.reserve(range.end());
    for (uint64 i = 0; i < range.begin(); ++i)
        m_permutation.push_back(static_cast<unsigned>(i));
    for (const IndexRange& job : m_sortingTable)
        for (uint64 i = job.begin(); i < job.end(); ++i)
            m_permutation.push_back(static_cast<unsigned>(i));
    const uint64 offset = m_permutation.size();
    zelVerify(offset == range.end());
    sortResult(zelData::Array<unsigned>(m_permutation));
}

// Failed transactions
//
// Each entry lies where its last writer put it: in the memory of the set under which the range was taken, or,
// if that failed, of a later one. Set k has taken the indices from the capacity of set k - 1 up to its own;
// the failed ranges of set k were written there, or later still.

namespace {

/// Sorts the ranges and joins those that touch.
void merge(Vector<IndexRange>& ranges) {
    std::sort(ranges.begin(), ranges.end(), [](const IndexRange& a, const IndexRange& b) {
        return a.begin() < b.begin();
    });
    size_t n = 0;
    for (const IndexRange& range : ranges) {
        if (range.empty())
            continue;
        if (n != 0 && range.begin() <= ranges[n - 1].end())
            ranges[n - 1].setEnd(std::max(ranges[n - 1].end(), range.end()));
        else
            ranges[n++] = range;
    }
    ranges.erase(ranges.begin() + n, ranges.end());
}

/// What of the ranges lies below the limit and in none of the others. Both lists are merged.
Vector<IndexRange>
subtract(const Vector<IndexRange>& ranges, const Vector<IndexRange>& others, uint64 limit) {
    Vector<IndexRange> result;
    const IndexRange* other = others.begin();
    for (const IndexRange& range : ranges) {
        uint64 begin = range.begin();
        const uint64 end = std::min(range.end(), limit);
        while (other != others.end() && other->end() <= begin)
            ++other;
        for (const IndexRange* cut = other; cut != others.end() && cut->begin() < end; ++cut) {
            if (cut->begin() > begin)
                result.push_back({begin, cut->begin()});
            begin = std::max(begin, cut->end());
        }
        if (begin < end)
            result.push_back({begin, end});
    }
    return result;
}

void append(Vector<IndexRange>& target, const Vector<IndexRange>& source) {
    for (const IndexRange& range : source)
        target.push_back(range);
    merge(target);
}

} // namespace

void GlobalResult::finalizeTransactions() {
    // Relaxed: the jobs' end publishes them.
    const uint32 numCreated = m_numTransactions.load(std::memory_order_relaxed);
    const uint32 numCompleted = m_numCompletedTransactions.load(std::memory_order_relaxed);
    zelVerifyNAs(numCreated == numCompleted,
                 "m_numTransactions.load() == m_numCompletedTransactions.load()",
                 "%s: All transactions where not successfully completed! (%u created, %u completed)",
                 m_path.c_str(),
                 numCreated,
                 numCompleted);
    m_lastCount = getCursor() - m_begin;
    if (m_sets.size() > 1) {
        Vector<IndexRange> inPlace; // in the newest memory that holds them
        for (size_t i = m_sets.size() - 1; i > 0; --i) {
            append(inPlace, m_sets[i]->getFailedTransactions());
            const BufferSet& set = *m_sets[i - 1];
            Vector<IndexRange> own(set.getFailedTransactions());
            own.push_back({i == 1 ? 0 : m_sets[i - 2]->getCapacity(), set.getCapacity()});
            merge(own);
            m_sets[i]->commitRanges(subtract(own, inPlace, set.getCapacity()));
        }
    }
    releaseSets();
}

Model* GlobalResult::ClassModel() {
    static std::atomic<Model*> s_model{nullptr};
    return Model::createBuiltinModel("zel.GlobalResult", Object::ClassModel(), s_model);
}

} // namespace zel
