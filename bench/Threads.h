#pragma once

#include <zel/Thread.h>
#include <zelCore/zelCore.h>

#include <tbb/global_control.h>

#include <cstdint>

/// Lets the library have n threads, the caller included.
inline void setThreads(int64_t n) {
    zelCore::init();
    zel::setNumThreads(static_cast<size_t>(n));
}

/// oneTBB with n threads, the caller included.
struct TbbThreads {
    explicit TbbThreads(int64_t n)
        : control(tbb::global_control::max_allowed_parallelism, static_cast<size_t>(n)) {
        setThreads(1); // our workers are not to be in the way
    }
    tbb::global_control control;
};
