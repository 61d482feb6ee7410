#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>

namespace zel {

/// Switches the calling thread's handling of denormal numbers: while enabled, results that would be denormal
/// are zero, and so are denormal operands. All threads of the system compute this way, so that a result does
/// not depend on the thread that computed it.
/// @threads any thread: acts on the calling thread alone
class ZEL_CORE_API DenormalizationGuard {
public:
    /// The bits flush-to-zero and denormals-are-zero of the MXCSR register.
    static constexpr uint32 Mask = 0x8040;

    /// Sets both bits.
    /// @return the register's old value, for disable
    [[nodiscard]] static uint32 enable() noexcept;
    /// Restores a value that enable returned.
    static void disable(uint32 old) noexcept;
};

/// Which floating-point exceptions trap (SIGFPE). Threads of the system take the mask over when they start.
/// @threads setMask and apply act on the calling thread; the stored mask any thread
class ZEL_CORE_API FloatingPointExceptions {
public:
    enum Flag : uint32 { Invalid = 1, DivideByZero = 2, Overflow = 4, Underflow = 8, Inexact = 16 };

    /// Stores a combination of flags, 0 by default, for threads that start from now on, and applies it to the
    /// calling thread.
    static void setMask(uint32 mask) noexcept;
    [[nodiscard]] static uint32 getMask() noexcept;
    /// Makes the exceptions of the stored mask trap on the calling thread, and no others.
    static void apply() noexcept;
};

} // namespace zel
