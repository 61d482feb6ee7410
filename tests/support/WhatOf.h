#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace zelTest {

/// The what() of the std::runtime_error that the function throws.
template <typename Function>
std::string whatOf(Function&& function) {
    try {
        std::forward<Function>(function)();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "no exception";
}

} // namespace zelTest
