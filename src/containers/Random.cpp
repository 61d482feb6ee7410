#include <zel/Random.h>

namespace zel {

std::mt19937& getRandGenerator() {
    // A constant seed is the promise: equal runs draw equal numbers.
    thread_local std::mt19937 generator{std::mt19937::default_seed}; // NOLINT(cert-msc51-cpp)
    return generator;
}

} // namespace zel
