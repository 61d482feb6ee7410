#pragma once

#include "InspectionRequest.h"
#include "InspectionTree.h"

#include <zel/Clock.h>
#include <zel/Component.h>
#include <zel/Integers.h>
#include <zel/Vector.h>
#include <zel/observer_ptr.h>

#include <chrono>
#include <string>

namespace zelNet {

/// The clocks below the root of an inspection service, and the ticks that clients have asked for.
/// @threads as the service
class InspectionClocks {
public:
    /// Both outlive the clocks.
    InspectionClocks(zel::Component* root, const TreeRevision& revision)
        : m_root(root), m_revision(revision) {}

    void list(InspectionRequest& request);
    void control(InspectionRequest& request);
    /// Makes ticks that are pending, until the time.
    /// @return whether there were any
    bool step(std::chrono::steady_clock::time_point end);
    [[nodiscard]] bool isAnyRunning();
    /// The first clock as updates have it, in JSON; "null" for none.
    [[nodiscard]] std::string first();

private:
    /// What a paused clock still has to do.
    struct Pending {
        zel::observer_ptr<zel::Clock> clock;
        zel::uint64 count = 0; // ticks; 0 with a time to reach
        double time = 0;
    };

    /// All of them, in the order of the tree.
    zel::Vector<zel::Clock*> clocks();
    [[nodiscard]] Json::Value describe(zel::Clock* clock) const;
    void drop(const zel::Clock* clock);
    /// @return false once there is nothing more to do
    static bool tickOnce(Pending& pending);

    zel::Component* m_root;
    const TreeRevision& m_revision;
    zel::uint64 m_clocksRevision = 0;
    zel::Vector<zel::observer_ptr<zel::Clock>> m_clocks; // of that revision
    zel::Vector<Pending> m_pending;
};

} // namespace zelNet
