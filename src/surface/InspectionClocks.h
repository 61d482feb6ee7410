#pragma once

#include "InspectionRequest.h"

#include <zel/Clock.h>
#include <zel/Component.h>
#include <zel/Integers.h>
#include <zel/Vector.h>
#include <zel/observer_ptr.h>

#include <chrono>

namespace zelNet {

/// The clocks below the root of an inspection service, and the ticks that clients have asked for.
/// @threads as the service
class InspectionClocks {
public:
    explicit InspectionClocks(zel::Component* root) : m_root(root) {}

    void list(InspectionRequest& request) const;
    void control(InspectionRequest& request);
    /// Makes ticks that are pending, until the time.
    /// @return whether there were any
    bool step(std::chrono::steady_clock::time_point end);
    /// The first clock as updates have it; null for none.
    [[nodiscard]] Json::Value first() const;

private:
    /// What a paused clock still has to do.
    struct Pending {
        zel::observer_ptr<zel::Clock> clock;
        zel::uint64 count = 0; // ticks; 0 with a time to reach
        double time = 0;
    };

    [[nodiscard]] zel::Vector<zel::Clock*> clocks() const;
    [[nodiscard]] Json::Value describe(zel::Clock* clock) const;
    void drop(const zel::Clock* clock);
    /// @return false once there is nothing more to do
    static bool tickOnce(Pending& pending);

    zel::Component* m_root;
    zel::Vector<Pending> m_pending;
};

} // namespace zelNet
