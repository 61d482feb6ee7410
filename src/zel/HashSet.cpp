#include <zel/HashSet.h>

namespace zel {

namespace {

/// Whether an integer from 2 to its square root divides the odd value.
bool hasDivisor(uint64 value) {
    for (uint64 divisor = 3; divisor <= value / divisor; divisor += 2)
        if (value % divisor == 0)
            return true;
    return false;
}

} // namespace

uint64 nextPrime(uint64 n) {
    uint64 candidate = n | 1;
    while (hasDivisor(candidate))
        candidate += 2;
    return candidate;
}

int nextPrime(int n) {
    const auto magnitude = static_cast<uint64>(n < 0 ? -static_cast<int64>(n) : static_cast<int64>(n));
    return static_cast<int>(nextPrime(magnitude));
}

} // namespace zel
