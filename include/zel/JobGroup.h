#pragma once

#include <zel/Export.h>
#include <zel/Job.h>
#include <zel/Vector.h>

namespace zel {

/// Runs its member jobs one after another as one job: for work that is too small to be queued piece by piece.
/// Dependencies, targets and priorities of the members are not looked at. The members are not owned.
class ZEL_CORE_API JobGroup : public Job {
public:
    using Job::Job;

    void addMember(Job* job) { m_members.push_back(job); }
    void removeAllMembers() { m_members.clear(); }
    [[nodiscard]] const VectorPOD<Job*>& getMembers() const noexcept { return m_members; }

    /// Runs and times each member in order.
    void implementation() override;

protected:
    static void runMember(Job& member);

private:
    VectorPOD<Job*> m_members;
};

} // namespace zel
