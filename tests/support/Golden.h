#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

namespace zelTest {

/// The bytes of a listing in tests/golden: hexadecimal numbers of two digits, "00*12" for one that stands
/// several times, and notes behind "#".
inline std::string readListing(const std::string& name) {
    std::ifstream file(std::string(ZEL_TEST_SOURCES) + "/golden/" + name);
    EXPECT_TRUE(file.good()) << name;
    std::string bytes;
    for (std::string line; std::getline(file, line);) {
        std::istringstream numbers(line.substr(0, line.find('#')));
        for (std::string number; numbers >> number;) {
            const auto star = number.find('*');
            const std::size_t count = star == std::string::npos ? 1 : std::stoul(number.substr(star + 1));
            bytes.append(count, static_cast<char>(std::stoi(number, nullptr, 16)));
        }
    }
    return bytes;
}

} // namespace zelTest
