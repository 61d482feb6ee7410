#pragma once

#include <zel/Integers.h>
#include <zel/Referenced.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>

#include <atomic>
#include <cstdarg>

namespace zel {

/// A line of the thread log.
struct LogEntry {
    uint64 tick;      ///< time stamp
    const char* text; ///< without line end; lives as long as the chunk
};

/// A block of memory for lines of one thread's log: entries from the front, their texts from the back.
/// @threads append the owning thread; entries any thread
class LogChunk : public Referenced {
public:
    /// In bytes.
    static constexpr size_t Size = 0x100000;

    /// @param predecessor  the chunk before this one; kept alive
    explicit LogChunk(LogChunk* predecessor);
    LogChunk(const LogChunk&) = delete;
    LogChunk& operator=(const LogChunk&) = delete;
    ~LogChunk() override;

    /// Formats a line and keeps it.
    /// @return false if it does not fit
    [[gnu::format(printf, 3, 0)]] bool append(uint64 tick, const char* format, va_list arguments);
    /// The same for a line too long for any chunk, which is cut; the chunk must be empty.
    [[gnu::format(printf, 3, 0)]] void appendCut(uint64 tick, const char* format, va_list arguments);

    [[nodiscard]] size_t getNumEntries() const noexcept {
        // Acquire: pairs with the release in commit.
        return m_numEntries.load(std::memory_order_acquire);
    }
    /// @pre index is below getNumEntries()
    [[nodiscard]] const LogEntry& getEntry(size_t index) const noexcept { return entries()[index]; }
    [[nodiscard]] LogChunk* getPredecessor() const noexcept { return m_predecessor.get(); }

    /// Keeps the newest chunk of a thread that ends, with those before it, for later readers.
    static void retain(LogChunk* newest);
    [[nodiscard]] static Vector<ref_ptr<LogChunk>> getRetained();

private:
    [[nodiscard]] LogEntry* entries() const noexcept { return reinterpret_cast<LogEntry*>(m_memory); }
    /// Bytes left for a text, its terminator included, when one more entry is made.
    [[nodiscard]] size_t room() const noexcept;
    void commit(uint64 tick, size_t size) noexcept;

    char* m_memory;
    char* m_textBegin; // the texts lie from here to the end
    std::atomic<size_t> m_numEntries{0};
    ref_ptr<LogChunk> m_predecessor;
};

} // namespace zel
