#pragma once

#include <locale.h>

namespace zelTest {

/// The functions of C write and read numbers with a point in this thread, as long as it lives, whatever
/// locale the program runs in.
class PointLocale {
public:
    PointLocale() : m_point(newlocale(LC_ALL_MASK, "C", nullptr)), m_old(uselocale(m_point)) {}
    PointLocale(const PointLocale&) = delete;
    PointLocale& operator=(const PointLocale&) = delete;
    ~PointLocale() {
        uselocale(m_old);
        freelocale(m_point);
    }

private:
    locale_t m_point;
    locale_t m_old;
};

} // namespace zelTest
