#include <zel/FloatingPoint.h>

#include <xmmintrin.h>

#include <atomic>
#include <cfenv>

namespace zel {

uint32 DenormalizationGuard::enable() noexcept {
    const uint32 old = _mm_getcsr();
    _mm_setcsr(old | Mask);
    return old;
}

void DenormalizationGuard::disable(uint32 old) noexcept {
    _mm_setcsr(old);
}

namespace {

struct Trap {
    uint32 flag;
    int exception;
};

constexpr Trap Traps[] = {
    {FloatingPointExceptions::Invalid, FE_INVALID},
    {FloatingPointExceptions::DivideByZero, FE_DIVBYZERO},
    {FloatingPointExceptions::Overflow, FE_OVERFLOW},
    {FloatingPointExceptions::Underflow, FE_UNDERFLOW},
    {FloatingPointExceptions::Inexact, FE_INEXACT},
};

// Relaxed: nothing else is published with the mask.
std::atomic<uint32> s_mask{0};

} // namespace

void FloatingPointExceptions::setMask(uint32 mask) noexcept {
    s_mask.store(mask, std::memory_order_relaxed);
    apply();
}

uint32 FloatingPointExceptions::getMask() noexcept {
    return s_mask.load(std::memory_order_relaxed);
}

void FloatingPointExceptions::apply() noexcept {
    const uint32 mask = getMask();
    int enabled = 0;
    int disabled = 0;
    for (const Trap& trap : Traps)
        ((mask & trap.flag) != 0 ? enabled : disabled) |= trap.exception;
    fedisableexcept(disabled);
    // A flag that is still raised from earlier would trap at the next operation.
    std::feclearexcept(enabled);
    feenableexcept(enabled);
}

} // namespace zel
