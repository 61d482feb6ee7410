#include "logging/LogChunk.h"

#include <zel/Thread.h>
#include <zel/Timer.h>
#include <zel/Vector.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace zel {

namespace {

constexpr const char* LogFileName = "thread_log.txt";

void gather(const LogChunk* newest, Vector<LogEntry>& entries) {
    for (const LogChunk* chunk = newest; chunk != nullptr; chunk = chunk->getPredecessor()) {
        const size_t count = chunk->getNumEntries();
        for (size_t i = 0; i < count; ++i)
            entries.push_back(chunk->getEntry(i));
    }
}

bool cmpLogEntry(const LogEntry& a, const LogEntry& b) {
    return a.tick < b.tick;
}

} // namespace

void Thread::logImplementation(const char* format, va_list arguments) {
    char line[4096];
    std::snprintf(line, sizeof(line), "[%d] %s", static_cast<int32>(getId()), format);
    size_t length = std::strlen(line);
    if (line[length - 1] == '\n') {
        while (line[length - 1] == '\n')
            line[--length] = '\0';
        std::fprintf(stderr, "ThreadLog: Removing trailing newlines from format %s\n", format);
    }
    // Relaxed: a switch that publishes nothing.
    if (immediateLogging.load(std::memory_order_relaxed)) {
        char* text = nullptr;
        // Printed in one piece, so that lines of several threads do not mix.
        if (vasprintf(&text, line, arguments) >= 0) {
            std::printf("%s\n", text);
            std::fflush(stdout);
            std::free(text);
        }
        return;
    }
    const uint64 tick = Timer::now();
    if (m_logChunk && m_logChunk->append(tick, line, arguments))
        return;
    // The lock is for a reader that follows the chain from another thread.
    ref_ptr<LogChunk> fresh = new LogChunk(m_logChunk.get());
    if (!fresh->append(tick, line, arguments))
        fresh->appendCut(tick, line, arguments);
    const std::lock_guard lock(m_logLock);
    m_logChunk = fresh;
}

void Thread::gatherLogEntries(Vector<LogEntry>& entries) {
    ref_ptr<LogChunk> newest;
    {
        const std::lock_guard lock(m_logLock);
        newest = m_logChunk;
    }
    gather(newest.get(), entries);
}

void Thread::flushLogs() {
    Vector<LogEntry> entries;
    const size_t numThreads = getNumThreads();
    for (uint32 i = 0; i < numThreads; ++i)
        if (Thread* thread = getThread(i); thread != nullptr)
            thread->gatherLogEntries(entries);
    {
        const std::lock_guard lock(s_mutex);
        if (s_promotedThreads != nullptr)
            for (const auto& entry : *s_promotedThreads)
                entry.key->gatherLogEntries(entries);
    }
    for (const ref_ptr<LogChunk>& ended : LogChunk::getRetained())
        gather(ended.get(), entries);
    std::sort(entries.begin(), entries.end(), cmpLogEntry);

    std::FILE* file = std::fopen(LogFileName, "w");
    bool written = file != nullptr;
    for (size_t i = 0; written && i < entries.size(); ++i)
        written = std::fprintf(file, "%s\n", entries[i].text) >= 0;
    if (file != nullptr && std::fclose(file) != 0)
        written = false;
    if (written)
        std::printf("Wrote %zu messages to %s\n", entries.size(), LogFileName);
    else
        std::fprintf(stderr, "ThreadLog: Could not write %s\n", LogFileName);
    std::fflush(stdout);
}

} // namespace zel

extern "C" void zelFlushThreadLogs() {
    zel::Thread::flushLogs();
}
