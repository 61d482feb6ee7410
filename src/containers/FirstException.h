#pragma once

#include <exception>

namespace zel {

/// For steps that must all be taken, whatever one of them throws: keeps the first exception for the end.
class FirstException {
public:
    template <typename Step>
    void run(const Step& step) noexcept {
        try {
            step();
        } catch (...) {
            if (!m_first)
                m_first = std::current_exception();
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
