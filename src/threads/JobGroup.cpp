#include <zel/JobGroup.h>
#include <zel/Thread.h>

namespace zel {

void JobGroup::implementation() {
    for (Job* member : m_members)
        runMember(*member);
}

void JobGroup::runMember(Job& member) {
    member.startTiming();
    member.implementation();
    member.stopTiming();
    if (Thread::isTimelineOn())
        Thread::getCurrentThread()->reportTimelineJob(&member);
}

} // namespace zel
