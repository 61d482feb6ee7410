#pragma once

#include <stdexcept>

namespace test {

/// An element that counts what happens to its kind and can throw on demand. Moves may throw, so that
/// containers have to copy it to keep their promises.
struct Counted {
    static inline int alive = 0;
    static inline int constructed = 0;
    static inline int destroyed = 0;
    /// A construction (of any sort) throws when this many have gone before; -1 for never.
    static inline int throwAfter = -1;

    static void reset() {
        alive = constructed = destroyed = 0;
        throwAfter = -1;
    }

    Counted() : Counted(0) {}
    Counted(int v) : value(v) { count(); }
    Counted(const Counted& other) : value(other.value) { count(); }
    Counted& operator=(const Counted& other) = default;
    ~Counted() {
        value = -1;
        --alive;
        ++destroyed;
    }
    friend bool operator==(const Counted& a, const Counted& b) { return a.value == b.value; }

    int value;

private:
    static void count() {
        if (throwAfter >= 0 && throwAfter-- == 0)
            throw std::runtime_error("Counted");
        ++alive;
        ++constructed;
    }
};

} // namespace test
