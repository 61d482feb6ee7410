#include <stdexcept>

// A library that can not be loaded: a static object of it throws.

namespace {

struct Throwing {
    Throwing() { throw std::runtime_error("out of paper"); }
};

const Throwing s_throwing; // NOLINT(cert-err58-cpp): what the test is about

} // namespace
