#pragma once

#include <gtest/gtest.h>

#include <cstdlib>

/// For tests of how the library's services end, and of its first start: the manager of the singletons ends
/// with the first life of the library, and those of later ones are left as they are. Leaves the test out
/// where what it starts is a second life.
#define ZEL_FIRST_LIFE_ONLY()                                                                                \
    if (std::getenv("ZEL_TEST_SECOND_LIFE") != nullptr) /* NOLINT(concurrency-mt-unsafe) */                  \
    GTEST_SKIP() << "services end with the first life of the library"
