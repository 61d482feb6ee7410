#include "InspectionClocks.h"

#include "InspectionElements.h"
#include "InspectionTree.h"

#include <zel/Log.h>
#include <zel/TreeGate.h>
#include <zel/VerifyThrow.h>

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <string>

namespace zelNet {

using zel::Clock;
using zel::uint64;

namespace {

constexpr uint64 MaxTicks = 1'000'000;

/// A number that the clock has refused, with a warning.
void verifyTaken(double asked, double present) {
    if (std::abs(asked - present) > 1e-9 * std::abs(asked))
        throw std::runtime_error("The clock refuses the value");
}

} // namespace

zel::Vector<Clock*> InspectionClocks::clocks() {
    if (m_clocksRevision != m_revision.get()) {
        m_clocksRevision = m_revision.get();
        m_clocks.clear();
        m_root->traverse([this](zel::Object* object) {
            if (auto* clock = dynamic_cast<Clock*>(object))
                m_clocks.push_back(clock);
        });
    }
    zel::Vector<Clock*> present;
    for (const auto& clock : m_clocks)
        if (clock)
            present.push_back(clock.get());
    return present;
}

Json::Value InspectionClocks::describe(Clock* clock) const {
    Json::Value entry;
    entry["path"] = static_cast<const std::string&>(inspectedPath(m_root, clock));
    entry["time"] = realToJson(clock->getTime());
    entry["frame"] = static_cast<Json::UInt64>(clock->getFrame());
    entry["frequency"] = clock->getFrequency();
    entry["timeStep"] = clock->getTimeStep();
    entry["modulation"] = clock->getTimeModulation();
    entry["enabled"] = clock->isEnabled();
    entry["master"] = static_cast<const std::string&>(inspectedPath(m_root, clock->getMaster()));
    Json::Int64 pending = 0;
    for (const Pending& p : m_pending)
        if (p.clock == clock)
            pending = p.count == 0 ? -1 : static_cast<Json::Int64>(p.count);
    entry["pending"] = pending;
    return entry;
}

std::string InspectionClocks::first() {
    const zel::Vector<Clock*> present = clocks();
    if (present.empty())
        return "null";
    const Clock* clock = present.front();
    Json::Value entry;
    entry["path"] = static_cast<const std::string&>(inspectedPath(m_root, clock));
    entry["time"] = realToJson(clock->getTime());
    entry["frame"] = static_cast<Json::UInt64>(clock->getFrame());
    return jsonOf(entry);
}

void InspectionClocks::list(InspectionRequest& request) {
    Json::Value& entries = request.response["clocks"] = Json::Value(Json::arrayValue);
    for (Clock* clock : clocks())
        entries.append(describe(clock));
}

void InspectionClocks::drop(const Clock* clock) {
    m_pending.erase(std::remove_if(m_pending.begin(),
                                   m_pending.end(),
                                   [clock](const Pending& pending) { return pending.clock == clock; }),
                    m_pending.end());
}

void InspectionClocks::control(InspectionRequest& request) {
    const zel::String path = request.text("path");
    auto* clock = dynamic_cast<Clock*>(&requireInspected(m_root, path));
    if (clock == nullptr)
        throw std::runtime_error("'" + path + "' is no clock");
    const zel::String action = request.text("action");
    if (action == "pause" || action == "run") {
        drop(clock);
        clock->setEnable(action == "run");
    } else if (action == "step" || action == "stepTo") {
        Pending pending{clock};
        if (action == "step")
            pending.count = request.wholeNumber("count", 1, MaxTicks);
        else
            pending.time = request.number("time");
        drop(clock);
        clock->setEnable(false);
        if (action == "stepTo" || pending.count != 0)
            m_pending.push_back(pending);
    } else if (action == "frequency") {
        const double value = request.number("value");
        clock->setFrequency(value);
        verifyTaken(value, clock->getFrequency());
    } else if (action == "modulation") {
        const double value = request.number("value");
        clock->setTimeModulation(value);
        verifyTaken(value, clock->getTimeModulation());
    } else
        throw std::runtime_error(
            "'action' must be one of pause, run, step, stepTo, frequency and modulation");
    request.response["clock"] = describe(clock);
}

bool InspectionClocks::isAnyRunning() {
    const zel::Vector<Clock*> all = clocks();
    return std::any_of(all.begin(), all.end(), [](const Clock* clock) { return clock->isEnabled(); });
}

bool InspectionClocks::tickOnce(Pending& pending) {
    Clock* clock = pending.clock.get();
    if (clock == nullptr)
        return false;
    const zel::size_t frame = clock->getFrame();
    const double time = clock->getTime();
    const double step = clock->getTimeStep();
    if (pending.count == 0 && pending.time <= time)
        return false;
    // The last step of the way is the clock's: it knows what rounding it tolerates.
    const bool isLast = pending.count == 0 && pending.time - time <= 1.5 * step;
    clock->stepTo(isLast ? pending.time : time + step);
    if (pending.clock.get() == nullptr || clock->getFrame() == frame)
        return false;
    return pending.count == 0 ? !isLast : --pending.count != 0;
}

bool InspectionClocks::step(std::chrono::steady_clock::time_point end) {
    if (m_pending.empty() || zel::TreeChange::isUnderWay())
        return false;
    do {
        // What a tick calls may drive clocks as well.
        Pending pending = m_pending.front();
        m_pending.erase(m_pending.begin());
        bool goesOn = false;
        try {
            goesOn = tickOnce(pending);
        } catch (const std::exception& error) {
            ZEL_LOG_WARNING("A step that was asked for has failed: " << error.what());
        }
        const bool isReplaced = std::any_of(m_pending.begin(), m_pending.end(), [&](const Pending& other) {
            return other.clock == pending.clock.get();
        });
        if (goesOn && !isReplaced)
            m_pending.push_back(pending);
    } while (!m_pending.empty() && std::chrono::steady_clock::now() < end);
    return true;
}

} // namespace zelNet
