#pragma once

#include <gtest/gtest.h>

#include <cstdlib>

namespace zelTest {

/// Whether the library was started and ended once ahead of the tests, see main.cpp.
inline bool isSecondLife() {
    return std::getenv("ZEL_TEST_SECOND_LIFE") != nullptr; // NOLINT(concurrency-mt-unsafe)
}

} // namespace zelTest

/// For tests of how the library's services end: the manager of the singletons ends with the first life of the
/// library, and those of later ones are left as they are. Leaves the test out where what it starts is a
/// second life.
#define ZEL_FIRST_LIFE_ONLY()                                                                                \
    if (zelTest::isSecondLife())                                                                             \
    GTEST_SKIP() << "services end with the first life of the library"
