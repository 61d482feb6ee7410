#pragma once

#include "TempDirectory.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace zelTest {

/// A program that writes its numbers with a comma, as long as it lives. The locale is made where none is
/// installed.
class CommaLocale {
public:
    CommaLocale() {
        for (const char* name : {"de_DE.UTF-8", "fr_FR.UTF-8"})
            if (choose(name))
                return;
        const std::string command =
            "localedef -i de_DE -f UTF-8 --no-archive '" + m_directory.path("comma") + "' >/dev/null 2>&1";
        ::setenv("LOCPATH", m_directory.path().c_str(), 1); // NOLINT(concurrency-mt-unsafe): one thread
        if (std::system(command.c_str()) != 0 || !choose("comma")) // NOLINT(concurrency-mt-unsafe)
            ADD_FAILURE() << "no locale with a comma can be made here: the package of locales is missing";
    }
    CommaLocale(const CommaLocale&) = delete;
    CommaLocale& operator=(const CommaLocale&) = delete;
    ~CommaLocale() { std::setlocale(LC_ALL, "C"); } // NOLINT(concurrency-mt-unsafe)

private:
    static bool choose(const char* name) {
        char text[8];
        return std::setlocale(LC_ALL, name) != nullptr && // NOLINT(concurrency-mt-unsafe)
               std::snprintf(text, sizeof(text), "%.1f", 1.5) == 3 && text[1] == ',';
    }

    TempDirectory m_directory;
};

} // namespace zelTest
