#include <zel/JobGroup.h>

namespace zel {

void JobGroup::implementation() {
    for (Job* member : m_members) {
        member->startTiming();
        member->implementation();
        member->stopTiming();
    }
}

} // namespace zel
