#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/InvalidIndex.h>
#include <zel/LockRank.h>
#include <zel/Object.h>
#include <zel/Path.h>
#include <zel/Range.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelData/Array.h>
#include <zelData/Buffer.h>

#include <atomic>
#include <memory>

namespace zel {

/// Lets the jobs of a task append to one target, a buffer or a storage, without knowing ahead how much each
/// will bring. A job takes a range of indices with one atomic addition and writes there:
///
///     result->commit(array, n, elements, jobIndex);           // one column, all in one call
///
///     auto transaction = result->allocateResult(n);            // several columns
///     write(transaction.getElements(positions), ...);
///     write(transaction.getElements(velocities), ...);
///     result->reportCompletedTransaction(&transaction);
///
/// A full target gets new and larger memory while the other jobs go on in the old one, which stays until the
/// end of the run; what lies there is then copied to its place. So no job waits for another one to finish
/// writing, and nothing is moved twice.
///
///     set 0   |---- memory of 64 ----|
///     set 1   |   written in set 0   |---- memory of 320: from 64 on, and what began in set 0 -----|
///
/// With sorting, the elements end up in the order of the jobs' indices whatever the order of arrival.
/// @threads allocateResult, commit and the reports any thread, while the task runs; the rest the owner
///     thread, ahead of the jobs and after them
/// @cost allocateResult: one atomic addition and a load; an overflow takes a lock, and allocates and
///     initialises memory for all that there is and twice as much again
class ZEL_CORE_API GlobalResult : public Object {
public:
    /// Each run begins anew.
    static constexpr uint32 TRUNCATE = 1;
    /// Each run adds to what there is.
    static constexpr uint32 APPEND = 2;

    class BufferSet;

    /// A block that a buffer had before an overflow.
    struct OverflowBuffer {
        ref_ptr<zelData::Buffer> buffer;
        void* data = nullptr;
        uint64 numElements = 0; ///< elements, not entries
    };

    /// A writer's share of the result.
    class ZEL_CORE_API Transaction {
    public:
        [[nodiscard]] GlobalResult* getResult() const noexcept { return m_result; }
        /// The entries to write.
        [[nodiscard]] const IndexRange& getRange() const noexcept { return m_range; }
        /// The set under which the transaction writes.
        [[nodiscard]] uint64 getSetIndex() const noexcept;
        /// Where the first entry of the range lies in a column of the target. Not through the column's own
        /// pointer: that may have moved on.
        [[nodiscard]] void* getElements(const zelData::Buffer* buffer) const;
        [[nodiscard]] void* getElements(const zelData::AbstractArray& array) const {
            return getElements(array.buffer());
        }

    private:
        friend class GlobalResult;
        Transaction(GlobalResult* result, const IndexRange& range, const BufferSet* set) noexcept
            : m_result(result), m_range(range), m_set(set) {}

        GlobalResult* m_result;
        IndexRange m_range;
        const BufferSet* m_set;
    };

    /// @param settings  TRUNCATE or APPEND
    /// @param path  named in messages
    GlobalResult(uint32 settings, const Path& path);
    ~GlobalResult() override;

    /// Gives the target memory for so many entries and makes it the new set's.
    /// @threads the thread that holds the lock
    virtual void handleOverflow(size_t newCapacity) = 0;
    /// Brings the target into another order: new entry i is old entry permutation[i].
    virtual void sortResult(const zelData::Array<unsigned>& permutation) = 0;

    /// Takes `count` entries for the caller to write, until it reports the transaction completed.
    [[nodiscard]] Transaction allocateResult(size_t count);
    /// Appends entries to one column, the others of the target keep what new entries have.
    /// @param array  of the target
    /// @param data  of the column's format; `count` entries
    /// @param sortIndex  the index of the job, for sorting; each job commits at most once then
    void commit(const zelData::AbstractArray& array,
                size_t count,
                const void* data,
                unsigned sortIndex = InvalidIndex);
    /// All entries of the transaction are written.
    void reportCompletedTransaction(Transaction* transaction);
    /// The writer begins anew, with the target's present memory.
    void reportFailedTransaction(Transaction* transaction);
    /// Lets the transaction's entries come in the order of the sort index.
    void setSortIndex(const Transaction& transaction, unsigned sortIndex);

    /// Makes room for the ranges of so many jobs, all empty.
    void prepareResultSorting(size_t numJobs);

    // What the derived classes begin and end a run with

    /// Begins a run: entries are appended from the range's begin on, and its end is the capacity.
    void init(const IndexRange& range);
    /// Makes the set of the next capacity. The targets are added to it by handleOverflow.
    BufferSet* createNewSet(size_t capacity);
    /// Copies what lies in old memory to its place, and releases that memory. Fails if a transaction is open.
    void finalizeTransactions();
    /// Sorts the entries of the range, if any has come with a sort index.
    void finalizeResultSorting(const IndexRange& range);

    [[nodiscard]] uint32 getSettings() const noexcept { return m_settings; }
    /// The number of entries that fit without a further overflow.
    [[nodiscard]] uint64 getCapacity() const noexcept;
    [[nodiscard]] uint64 getSetIndex() const noexcept;
    /// In the present run, or the last one.
    [[nodiscard]] uint64 getNumOverflows() const noexcept { return m_numOverflows; }
    [[nodiscard]] double getCapacityEstimate() const noexcept { return m_capacityEstimate; }
    /// For so many entries and a multiple of 64: the present capacity and twice what is needed.
    [[nodiscard]] static size_t calculateIncreasedCapacity(size_t current, size_t needed) noexcept;

    [[nodiscard]] static Model* ClassModel();

protected:
    /// The end of what was appended.
    [[nodiscard]] uint64 getCursor() const noexcept { return m_cursor.load(std::memory_order_relaxed); }
    /// How many entries to make room for, given what there is and where the new ones begin. Follows what
    /// recent runs have needed.
    [[nodiscard]] uint64 estimateCapacity(uint64 numEntries, uint64 begin);
    [[nodiscard]] uint64 getBegin() const noexcept { return m_begin; }
    void resetOverflows() noexcept { m_numOverflows = 0; }
    /// Adds a column of the target to the set that init or createNewSet has made last.
    void addTarget(zelData::Buffer* buffer);
    /// The same, with new memory for so many elements; the old one goes to the set.
    void moveTarget(zelData::Buffer* buffer, uint64 numElements);

private:
    [[nodiscard]] Transaction allocate(size_t count) {
        // Acquire: pairs with the release in overflow. Who sees a set also sees that the cursor lies beyond
        // the capacity of the set before, so that no range lies in two sets.
        const BufferSet* const set = m_set.load(std::memory_order_acquire);
        const uint64 begin = m_cursor.fetch_add(count, std::memory_order_relaxed);
        const IndexRange range(begin, begin + count);
        return {this, range, fits(set, range.end()) ? set : overflow(range, set)};
    }
    [[nodiscard]] static bool fits(const BufferSet* set, uint64 end) noexcept;
    [[nodiscard]] const BufferSet* overflow(const IndexRange& range, const BufferSet* set);
    void reportFailedTransaction(const IndexRange& range, uint64 setIndex);
    void storeSortRange(const IndexRange& range, unsigned sortIndex);
    void releaseSets();

    std::atomic<const BufferSet*> m_set{nullptr}; // published under m_mutex; its index is the set index
    Vector<std::unique_ptr<BufferSet>> m_sets;    // guarded by m_mutex while the task runs
    alignas(64) std::atomic<uint64> m_cursor{0};
    alignas(64) std::atomic<uint32> m_numTransactions{0};
    std::atomic<uint32> m_numCompletedTransactions{0};
    uint64 m_numOverflows = 0; // guarded by m_mutex while the task runs
    mutable RankedMutex<LockRank::GlobalResult> m_mutex;
    double m_capacityEstimate = 0;
    Vector<IndexRange> m_sortingTable; // each job writes its own entry
    std::atomic<bool> m_isSorted{false};
    VectorPOD<unsigned> m_permutation;
    uint64 m_lastCount = 0; // entries that the last run has added
    uint64 m_begin = 0;
    uint32 m_settings;
    Path m_path;
};

/// What happened while the target had one capacity.
class ZEL_CORE_API GlobalResult::BufferSet {
public:
    BufferSet(uint64 index, uint64 capacity) noexcept : m_index(index), m_capacity(capacity) {}

    [[nodiscard]] uint64 getIndex() const noexcept { return m_index; }
    [[nodiscard]] uint64 getCapacity() const noexcept { return m_capacity; }
    /// The memory that the targets had in the set before this one.
    [[nodiscard]] const Vector<OverflowBuffer>& getOverflows() const noexcept { return m_overflows; }
    void addOverflow(const OverflowBuffer& overflow) { m_overflows.push_back(overflow); }
    /// Ranges that began in an earlier set and were written in this one, or later.
    [[nodiscard]] const Vector<IndexRange>& getFailedTransactions() const noexcept {
        return m_failedTransactions;
    }
    void addFailedTransaction(const IndexRange& range) { m_failedTransactions.push_back(range); }
    /// Copies the ranges from the overflow buffers to the present memory of their buffers.
    void commitRanges(const Vector<IndexRange>& ranges) const;

    /// A column of the target, and where it lies in this set.
    void addTarget(zelData::Buffer* buffer);
    /// Null for a buffer that is none of the target's.
    [[nodiscard]] void* getElement(const zelData::Buffer* buffer, uint64 index) const noexcept;

private:
    friend class GlobalResult;
    struct Target {
        const zelData::Buffer* buffer;
        char* data;
        uint64 entrySize; // in bytes
    };

    void reset(uint64 capacity);

    uint64 m_index;
    uint64 m_capacity;
    Vector<OverflowBuffer> m_overflows;
    Vector<IndexRange> m_failedTransactions;
    Vector<Target> m_targets;
};

} // namespace zel
