#include <zel/HashSet.h>

namespace zel {

namespace {

bool hasDivisor(uint64 value) {
    for (uint64 divisor = 2; divisor <= value / divisor; ++divisor)
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
