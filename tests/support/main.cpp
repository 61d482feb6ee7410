#include <zelCore/zelCore.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <iostream>

// Runs the tests, and where the environment asks for it, under conditions in which users run the library as
// well:
//
//     ZEL_TEST_SECOND_LIFE  set: behind an init and a shutdown, so that what the tests start is a second life
//     ZEL_TEST_LOCALE       the locale in which the program runs, for instance one with a comma in its
//     numbers

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    if (const char* const locale = std::getenv("ZEL_TEST_LOCALE")) // NOLINT(concurrency-mt-unsafe)
        if (std::setlocale(LC_ALL, locale) == nullptr) {           // NOLINT(concurrency-mt-unsafe)
            std::cerr << "There is no locale " << locale << '\n';
            return 1;
        }
    if (std::getenv("ZEL_TEST_SECOND_LIFE") != nullptr) { // NOLINT(concurrency-mt-unsafe)
        zelCore::init();
        zelCore::shutdown();
    }
    return RUN_ALL_TESTS();
}
