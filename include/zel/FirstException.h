#pragma once

#include <exception>

namespace zel {

/// For steps that must all be taken, whatever one of them throws: keeps the first exception for the end.
/// @threads external lock
class FirstException {
public:
    /// Does not hold up a thread that is being cancelled.
    template <typename Step>
    void run(const Step& step) {
        try {
            step();
        } catch (...) {
            const std::exception_ptr exception = std::current_exception();
            if (!exception)
                throw; // what unwinds a cancelled thread
            if (!m_first)
                m_first = exception;
        }
    }
    /// Throws what was kept, if anything was.
    void rethrow() const {
        if (m_first)
            std::rethrow_exception(m_first);
    }

private:
    std::exception_ptr m_first;
};

} // namespace zel
