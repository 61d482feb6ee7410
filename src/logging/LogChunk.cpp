#include "LogChunk.h"

#include <zel/LockRank.h>
#include <zel/Verify.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

namespace zel {

namespace {

/// Never destroyed: threads may end after the static objects.
constinit RankedMutex<LockRank::LogChunks> s_retainedMutex;
Vector<ref_ptr<LogChunk>>& retainedChunks() { // guarded by s_retainedMutex
    static auto& chunks = *new Vector<ref_ptr<LogChunk>>;
    return chunks;
}

} // namespace

void LogChunk::retain(LogChunk* newest) {
    const std::lock_guard lock(s_retainedMutex);
    retainedChunks().push_back(newest);
}

Vector<ref_ptr<LogChunk>> LogChunk::getRetained() {
    const std::lock_guard lock(s_retainedMutex);
    return retainedChunks();
}

LogChunk::LogChunk(LogChunk* predecessor)
    : m_memory(static_cast<char*>(std::malloc(Size)))
    , m_textBegin(m_memory + Size)
    , m_predecessor(predecessor) {
    zelVerify(m_memory != nullptr);
}

LogChunk::~LogChunk() {
    // Unlinks a long chain here, one after the other: each chunk freeing the next would use the stack up.
    ref_ptr<LogChunk> next = std::move(m_predecessor);
    while (next && next->referenceCount() == 1) {
        ref_ptr<LogChunk> following = std::move(next->m_predecessor);
        next = std::move(following);
    }
    std::free(m_memory);
}

size_t LogChunk::room() const noexcept {
    const char* entriesEnd = m_memory + (m_numEntries.load(std::memory_order_relaxed) + 1) * sizeof(LogEntry);
    return entriesEnd < m_textBegin ? static_cast<size_t>(m_textBegin - entriesEnd) : 0;
}

bool LogChunk::append(uint64 tick, const char* format, va_list arguments) {
    // The text lies at the end, so its length must be known before it is written.
    va_list copy;
    va_copy(copy, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (length < 0 || static_cast<size_t>(length) >= room())
        return false;
    const auto size = static_cast<size_t>(length) + 1;
    va_copy(copy, arguments);
    std::vsnprintf(m_textBegin - size, size, format, copy);
    va_end(copy);
    commit(tick, size);
    return true;
}

void LogChunk::appendCut(uint64 tick, const char* format, va_list arguments) {
    const size_t size = room();
    va_list copy;
    va_copy(copy, arguments);
    if (std::vsnprintf(m_textBegin - size, size, format, copy) < 0)
        *(m_textBegin - size) = '\0'; // a text that cannot be formatted
    va_end(copy);
    commit(tick, size);
}

void LogChunk::commit(uint64 tick, size_t size) noexcept {
    m_textBegin -= size;
    const size_t numEntries = m_numEntries.load(std::memory_order_relaxed); // written by this thread alone
    ::new (static_cast<void*>(entries() + numEntries)) LogEntry{tick, m_textBegin};
    // Release: pairs with the acquire of a reader.
    m_numEntries.store(numEntries + 1, std::memory_order_release);
}

} // namespace zel
