#include <zel/HashSet.h>

#include <stdexcept>
#include <string>

namespace zel {

namespace {

/// The largest that 64 bits hold: 2^64 - 59.
constexpr uint64 LargestPrime = 18446744073709551557U;

/// Whether an integer from 2 to its square root divides the odd value.
bool hasDivisor(uint64 value) {
    for (uint64 divisor = 3; divisor <= value / divisor; divisor += 2)
        if (value % divisor == 0)
            return true;
    return false;
}

} // namespace

uint64 nextPrime(uint64 n) {
    if (n > LargestPrime)
        throw std::runtime_error("nextPrime: no number of 64 bits from " + std::to_string(n) +
                                 " on is prime");
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
