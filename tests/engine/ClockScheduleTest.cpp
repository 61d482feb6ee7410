// A clock beside a plain list of what is to happen when, over many frames of random changes.
#include "support/Soak.h"

#include <zel/Clock.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

using zel::Clock;
using zel::ref_ptr;

namespace {

/// What the clock is held against: all events in one list, which is searched through in each frame.
class Reference {
public:
    struct Entry {
        int id;
        double interval;
        zel::uint64 frame;
        double residual;
    };

    explicit Reference(double timeStep) : m_timeStep(timeStep) {}

    void add(int id, double interval, double delay) {
        Entry entry{id, interval, 0, 0};
        schedule(entry, delay);
        m_entries.push_back(entry);
    }
    void remove(int id) {
        m_entries.erase(
            std::remove_if(m_entries.begin(), m_entries.end(), [id](const Entry& e) { return e.id == id; }),
            m_entries.end());
    }
    void setTimeStep(double timeStep) {
        const double old = std::exchange(m_timeStep, timeStep);
        for (Entry& entry : m_entries)
            if (entry.frame > m_frame || !m_dispatching)
                schedule(entry,
                         (static_cast<double>(entry.frame) - static_cast<double>(m_frame)) * old +
                             entry.residual);
    }
    void delay(int id, double delay) {
        for (Entry& entry : m_entries)
            if (entry.id == id)
                schedule(entry, delay);
    }
    /// The ids that are due now.
    std::vector<int> due() const {
        std::vector<int> ids;
        for (const Entry& entry : m_entries)
            if (entry.frame == m_frame)
                ids.push_back(entry.id);
        return ids;
    }
    void beginDispatch() { m_dispatching = true; }
    /// The event has fired: it goes, or waits for its next turn.
    void fired(int id) {
        for (Entry& entry : m_entries) {
            if (entry.id != id)
                continue;
            if (entry.interval < 0)
                remove(id);
            else
                schedule(entry, entry.interval + entry.residual);
            return;
        }
    }
    void endFrame() {
        m_dispatching = false;
        ++m_frame;
    }
    bool has(int id) const {
        return std::any_of(m_entries.begin(), m_entries.end(), [id](const Entry& e) { return e.id == id; });
    }
    int any(std::mt19937& random) const {
        return m_entries.empty() ? -1 : m_entries[random() % m_entries.size()].id;
    }
    size_t size() const { return m_entries.size(); }

private:
    void schedule(Entry& entry, double delay) const {
        const double steps = std::max(1.0, std::floor(delay / m_timeStep * (1 + 1e-9)));
        entry.frame = m_frame + static_cast<zel::uint64>(steps);
        entry.residual = delay - steps * m_timeStep;
    }

    std::vector<Entry> m_entries;
    zel::uint64 m_frame = 0;
    double m_timeStep;
    bool m_dispatching = false;
};

/// A clock and its reference, to which all is done that is done to the clock. What fires is noted by the
/// clock's callbacks, and held against what the reference says is due, in any order.
class Pair {
public:
    /// @param throwOneIn  how many events go well for each that throws; 0 for no throw at all
    Pair(unsigned seed, double frequency, unsigned throwOneIn)
        : m_random(seed)
        , m_throwOneIn(throwOneIn)
        , m_clock(new Clock("c", frequency))
        , m_reference(1 / frequency) {}

    void frame() {
        m_due = m_reference.due();
        m_reference.beginDispatch();
        while (!tick()) {
            // What is left of the frame is still due.
        }
        // All that was due has fired, but for what a callback removed or delayed.
        EXPECT_TRUE(m_due.empty());
        m_reference.endFrame();
        if (chance(10))
            change();
    }
    size_t numFired() const { return m_numFired; }

private:
    struct Thrown : std::exception {};

    /// @return whether nothing was thrown
    bool tick() {
        try {
            m_clock->tick(false);
            return true;
        } catch (const Thrown&) {
            return false;
        }
    }
    bool chance(unsigned oneIn) { return m_random() % oneIn == 0; }
    double number(double from, double to) { return std::uniform_real_distribution<>(from, to)(m_random); }

    void add() {
        const int id = m_nextId++;
        const double interval = chance(3) ? -1 : number(0, 3);
        const double delay = number(0, 5);
        m_reference.add(id, interval, delay);
        const ref_ptr<Clock::Event> event(new Clock::Event([this, id] { fire(id); }, interval, delay));
        m_events[id] = event;
        m_clock->addEvent(event.get());
    }

    /// One of the things that may happen between ticks, and within.
    void change() {
        const int id = m_reference.any(m_random);
        switch (m_random() % 8) {
        case 0:
        case 1:
        case 2:
            if (m_reference.size() < 40)
                add();
            break;
        case 3:
            if (id >= 0) {
                forgetDue(id);
                m_reference.remove(id);
                m_clock->removeEvent(m_events[id].get());
                m_events.erase(id);
            }
            break;
        case 4:
            if (id >= 0 && m_events[id]->isScheduled()) {
                const double delay = number(0, 5);
                forgetDue(id);
                m_reference.delay(id, delay);
                m_events[id]->setStartDelay(delay);
            }
            break;
        case 5: {
            const double frequency = number(5, 50);
            m_reference.setTimeStep(1 / frequency);
            m_clock->setFrequency(frequency);
            break;
        }
        default:
            add();
            break;
        }
    }

    void forgetDue(int id) { m_due.erase(std::remove(m_due.begin(), m_due.end(), id), m_due.end()); }

    void fire(int id) {
        ++m_numFired;
        const auto position = std::find(m_due.begin(), m_due.end(), id);
        ASSERT_NE(position, m_due.end()) << "event " << id << " is not due";
        m_due.erase(position);
        const ref_ptr<Clock::Event> event(m_events[id]);
        if (chance(5) && m_reference.size() < 60)
            changeWithin(id);
        // What the clock does after the callback.
        if (m_reference.has(id) && !event->isScheduled()) {
            m_reference.fired(id);
            if (!m_reference.has(id))
                m_events.erase(id);
        }
        if (m_throwOneIn != 0 && chance(m_throwOneIn))
            throw Thrown();
    }

    /// As change, while an event fires.
    void changeWithin(int id) {
        if (chance(4)) {
            m_reference.remove(id);
            const ref_ptr<Clock::Event> event(m_events[id]);
            m_events.erase(id);
            m_clock->removeEvent(event.get());
        } else {
            change();
        }
    }

    std::mt19937 m_random;
    unsigned m_throwOneIn;
    ref_ptr<Clock> m_clock;
    Reference m_reference;
    std::map<int, ref_ptr<Clock::Event>> m_events;
    std::vector<int> m_due;
    int m_nextId = 0;
    size_t m_numFired = 0;
};

} // namespace

TEST(ClockScheduleTest, FiresWhatAPlainListWouldFire) {
    zelCore::init();
    for (const unsigned seed : {1U, 2U, 3U, 4U}) {
        Pair pair(seed, 10, 0);
        for (int i = 0; i < 25000 && !testing::Test::HasFailure(); ++i)
            pair.frame();
        EXPECT_GT(pair.numFired(), 10000U) << "seed " << seed;
    }
    zelCore::shutdown();
}

TEST(ClockScheduleTest, FiresWhatAPlainListWouldFireWhereEventsThrow) {
    zelCore::init();
    const unsigned seed = zelTest::stressSeed();
    for (unsigned throwOneIn : {2U, 7U, 50U}) {
        Pair pair(seed + throwOneIn, 10, throwOneIn);
        for (size_t i = 0; i < 10000 / zelTest::StressDivisor && !testing::Test::HasFailure(); ++i)
            pair.frame();
        EXPECT_GT(pair.numFired(), 4000U / zelTest::StressDivisor);
    }
    zelCore::shutdown();
}

TEST(ClockScheduleSoakTest, DISABLED_FiresWhatAPlainListWouldFireWhereEventsThrow) {
    zelCore::init();
    zelTest::soak([](unsigned seed) {
        Pair pair(seed, 10, seed % 64);
        for (int i = 0; i < 5000 && !testing::Test::HasFailure(); ++i)
            pair.frame();
    });
    zelCore::shutdown();
}

TEST(ClockScheduleTest, TicksSlavesAsOftenAsTheirFrequenciesSay) {
    zelCore::init();
    std::mt19937 random(5);
    for (int round = 0; round < 10; ++round) {
        const double frequency = std::uniform_real_distribution<>(10, 100)(random);
        const ref_ptr<Clock> master(new Clock("m", frequency));
        std::vector<ref_ptr<Clock>> slaves;
        std::vector<double> frequencies;
        for (int i = 0; i < 5; ++i) {
            frequencies.push_back(std::uniform_real_distribution<>(0.5, frequency)(random));
            slaves.push_back(new Clock(zel::Name("s" + std::to_string(i)), frequencies.back()));
            (i == 4 ? slaves[0] : master)->addSlave(slaves.back().get());
        }
        constexpr int Frames = 2000;
        for (int i = 0; i < Frames; ++i)
            master->tick(false);
        for (int i = 0; i < 4; ++i)
            EXPECT_NEAR(static_cast<double>(slaves[static_cast<size_t>(i)]->getFrame()),
                        Frames * frequencies[static_cast<size_t>(i)] / frequency,
                        2);
        // A slave of a slave ticks once in each of that one's frames at most.
        EXPECT_NEAR(static_cast<double>(slaves[4]->getFrame()),
                    static_cast<double>(slaves[0]->getFrame()) *
                        std::min(1.0, frequencies[4] / frequencies[0]),
                    2);
    }
    zelCore::shutdown();
}
