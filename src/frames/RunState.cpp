#include "RunState.h"

#include "FrameWalk.h"

#include <zel/Exception.h>
#include <zel/InvalidIndex.h>
#include <zelData/Format.h>
#include <zelData/Type.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>

namespace zelData {

namespace {

using zel::Clock;
using zel::uint32;
using zel::uint64;
using zel::uint8;

constexpr const char* TextFormat = "String";
constexpr const char* RealFormat = "Real:64bit";
constexpr const char* NumberFormat = "UInt:64bit";
constexpr const char* FlagFormat = "UInt:8bit";

/// Columns that are filled row by row.
class Table {
public:
    explicit Table(uint64 numRows) : m_numRows(numRows) {}

    zel::ref_ptr<Buffer> add(const char* name, const char* format) {
        zel::ref_ptr<Buffer> column(new Buffer(zel::Name(name), getFormat(format)));
        column->setId(Frame::NoId); // and not that of the object, so that equal runs have equal bytes
        column->resize(m_numRows);
        m_columns.push_back(column);
        return column;
    }
    [[nodiscard]] const zel::Vector<zel::ref_ptr<Buffer>>& columns() const { return m_columns; }

private:
    uint64 m_numRows;
    zel::Vector<zel::ref_ptr<Buffer>> m_columns;
};

template <typename T>
class ColumnOf {
public:
    ColumnOf(Table& table, const char* name, const char* format)
        : m_head(table.add(name, format)->data<T>()) {}
    void push(const T& element) { *m_head++ = element; }

private:
    T* m_head;
};

bool isEqual(const Buffer* a, const Buffer* b) {
    if (a->size() != b->size())
        return false;
    if (a->getFormat() == getFormat(TextFormat))
        return std::equal(a->data<zel::String>(), a->data<zel::String>() + a->size(), b->data<zel::String>());
    return a->empty() || std::memcmp(a->getPtr(), b->getPtr(), a->size() * a->getElementSize()) == 0;
}

void addFamily(Clock* clock, zel::Vector<Clock*>& clocks) {
    if (!clocks.contains(clock))
        clocks.push_back(clock);
    for (Clock* slave : clock->getSlaves())
        addFamily(slave, clocks);
}

/// What an event of a clock is known by: its name, and its place among those of the name. The one by which a
/// slave ticks is known by the path of the slave, and stands at this place.
constexpr uint64 PlaceOfSlaves = zel::InvalidIndex;

class EventNames {
public:
    EventNames(const Clock* clock, const zel::Component* root) {
        for (const Clock* slave : clock->getSlaves())
            add(slave->getFrameEvent(), slave->getPath(root).str(), PlaceOfSlaves);
        zel::HashTable<zel::Name, uint64> numNamed;
        for (zel::size_t i = 0; i < clock->getNumObjects(); ++i) {
            auto* event = dynamic_cast<Clock::Event*>(clock->getObject(i));
            if (event == nullptr || m_names.contains(event))
                continue;
            const auto known = numNamed.find(event->getName());
            const uint64 place = known == numNamed.end() ? 0 : known->value;
            numNamed.insert(event->getName(), place + 1);
            add(event, event->getName().str(), place);
        }
    }
    struct Place {
        zel::String name;
        uint64 number;
    };
    [[nodiscard]] Place placeOf(Clock::Event* event) const {
        const auto place = m_names.find(event);
        return place == m_names.end() ? Place{event->getName().str(), 0} : place->value;
    }
    /// Null if there is none.
    [[nodiscard]] Clock::Event* find(const zel::String& name, uint64 number) const {
        const auto event = m_events.find(keyOf(name, number));
        return event == m_events.end() ? nullptr : event->value;
    }

private:
    [[nodiscard]] static zel::String keyOf(const zel::String& name, uint64 number) {
        return std::to_string(number) + " " + name;
    }
    void add(Clock::Event* event, const zel::String& name, uint64 number) {
        m_names.insert(event, Place{name, number});
        m_events.insert(keyOf(name, number), event);
    }

    zel::HashTable<Clock::Event*, Place> m_names;
    zel::HashTable<zel::String, Clock::Event*> m_events;
};

} // namespace

zel::Vector<Clock*> clocksOf(zel::Component* root, Clock* clock) {
    zel::Vector<Clock*> clocks;
    if (root != nullptr)
        root->traverse([&clocks](zel::Object* object) {
            if (auto* found = dynamic_cast<Clock*>(object))
                clocks.push_back(found);
        });
    if (clock != nullptr) {
        while (clock->getMaster() != nullptr)
            clock = clock->getMaster();
        addFamily(clock, clocks);
    }
    return clocks;
}

// Writing

RunStateWriter::RunStateWriter(zel::Component* root, Clock* clock) : m_root(root), m_clock(clock) {
    const auto changed = [this](zel::Component*, zel::Object*) { m_isKnown = false; };
    m_added = root->addObjectEvent.connect(changed);
    m_removed = root->removeObjectEvent.connect(changed);
}

RunStateWriter::~RunStateWriter() {
    if (!m_root)
        return;
    m_root->addObjectEvent.disconnect(m_added);
    m_root->removeObjectEvent.disconnect(m_removed);
}

void RunStateWriter::add(Frame* frame, const char* table, const zel::ref_ptr<Buffer>& column) {
    const zel::Path path = zel::Path(RunStateName) + zel::Name(table) + column->getName();
    const auto last = m_last.find(path.str());
    if (last != m_last.end() && isEqual(last->value.get(), column.get()))
        return;
    m_last.insert(path.str(), column);
    frame->addBuffer(column.get(), path);
}

void RunStateWriter::write(Frame* frame) {
    const RebindOff rebindOff;
    if (frame->isKeyFrame())
        m_last.clear(); // also what a table told that is empty now
    // Clocks outside of the root may come and go unseen.
    if (!m_isKnown || frame->isKeyFrame()) {
        m_clocks.clear();
        for (Clock* clock : clocksOf(m_root.get(), m_clock.get()))
            m_clocks.push_back(clock);
        m_isKnown = true;
    }
    for (zel::size_t i = m_clocks.size(); i-- > 0;)
        if (!m_clocks[i])
            m_clocks.erase(&m_clocks[i]);
    addClocks(frame);
    addEvents(frame);
}

void RunStateWriter::addClocks(Frame* frame) {
    const uint64 n = m_clocks.size();
    if (n == 0)
        return;
    Table table(n);
    ColumnOf<zel::String> paths(table, "path", TextFormat);
    ColumnOf<double> times(table, "time", RealFormat);
    ColumnOf<uint64> frames(table, "frame", NumberFormat);
    ColumnOf<double> frequencies(table, "frequency", RealFormat);
    ColumnOf<double> modulations(table, "timeModulation", RealFormat);
    ColumnOf<uint8> enabled(table, "enabled", FlagFormat);
    ColumnOf<uint8> joined(table, "joined", FlagFormat);
    ColumnOf<uint64> counts(table, "numEvents", NumberFormat);
    for (const zel::observer_ptr<Clock>& clock : m_clocks) {
        paths.push(clock->getPath(m_root.get()).str());
        times.push(clock->getTime());
        frames.push(clock->getFrame());
        frequencies.push(clock->getFrequency());
        modulations.push(clock->getTimeModulation());
        enabled.push(clock->isEnabled() ? 1 : 0);
        joined.push(clock->hasJoinedMaster() ? 1 : 0);
        counts.push(clock->getEvents().size());
    }
    for (const zel::ref_ptr<Buffer>& column : table.columns())
        add(frame, "clocks", column);
}

void RunStateWriter::addEvents(Frame* frame) {
    uint64 n = 0;
    for (const zel::observer_ptr<Clock>& clock : m_clocks)
        n += clock->getEvents().size();
    if (n == 0)
        return; // which the clocks tell
    Table table(n);
    ColumnOf<zel::String> names(table, "name", TextFormat);
    ColumnOf<uint64> numbers(table, "number", NumberFormat);
    ColumnOf<uint64> frames(table, "dispatchFrame", NumberFormat);
    ColumnOf<double> residuals(table, "residual", RealFormat);
    ColumnOf<uint8> scheduled(table, "scheduled", FlagFormat);
    ColumnOf<double> intervals(table, "interval", RealFormat);
    ColumnOf<double> delays(table, "startDelay", RealFormat);
    ColumnOf<uint8> repeating(table, "repeating", FlagFormat);
    ColumnOf<uint8> enabled(table, "enabled", FlagFormat);
    for (const zel::observer_ptr<Clock>& clock : m_clocks) {
        const EventNames known(clock.get(), m_root.get());
        for (const Clock::EventState& state : clock->getSchedule()) {
            const EventNames::Place place = known.placeOf(state.event);
            names.push(place.name);
            numbers.push(place.number);
            frames.push(state.dispatchFrame);
            residuals.push(state.residual);
            scheduled.push(state.isScheduled ? 1 : 0);
            intervals.push(state.event->getInterval());
            delays.push(state.event->getStartDelay());
            repeating.push(state.event->isRepeating() ? 1 : 0);
            enabled.push(state.event->isEnabled() ? 1 : 0);
        }
    }
    for (const zel::ref_ptr<Buffer>& column : table.columns())
        add(frame, "events", column);
}

// Reading

/// The columns, looked at.
class RunStateReader::Tables {
public:
    Tables(const RunStateReader& owner, const Frame* frame) : m_owner(owner), m_frame(frame) {
        const Buffer* paths = columnAt("clocks", "path");
        m_numClocks = paths == nullptr ? 0 : paths->size();
        path = data<zel::String>("clocks", "path", TextFormat, m_numClocks);
        time = data<double>("clocks", "time", RealFormat, m_numClocks);
        frameNumber = data<uint64>("clocks", "frame", NumberFormat, m_numClocks);
        frequency = data<double>("clocks", "frequency", RealFormat, m_numClocks);
        modulation = data<double>("clocks", "timeModulation", RealFormat, m_numClocks);
        clockEnabled = data<uint8>("clocks", "enabled", FlagFormat, m_numClocks);
        joined = data<uint8>("clocks", "joined", FlagFormat, m_numClocks);
        numEvents = data<uint64>("clocks", "numEvents", NumberFormat, m_numClocks);
        uint64 n = 0;
        for (uint64 i = 0; i < m_numClocks; ++i) {
            if (frameNumber[i] == zel::InvalidIndex)
                fail("clocks", "frame");
            if (numEvents[i] > std::numeric_limits<uint32>::max())
                fail("clocks", "numEvents");
            n += numEvents[i];
        }
        name = data<zel::String>("events", "name", TextFormat, n);
        number = data<uint64>("events", "number", NumberFormat, n);
        dispatchFrame = data<uint64>("events", "dispatchFrame", NumberFormat, n);
        residual = data<double>("events", "residual", RealFormat, n);
        scheduled = data<uint8>("events", "scheduled", FlagFormat, n);
        interval = data<double>("events", "interval", RealFormat, n);
        startDelay = data<double>("events", "startDelay", RealFormat, n);
        repeating = data<uint8>("events", "repeating", FlagFormat, n);
        enabled = data<uint8>("events", "enabled", FlagFormat, n);
    }

    [[nodiscard]] uint64 numClocks() const { return m_numClocks; }

    // One element for each clock
    const zel::String* path;
    const double* time;
    const uint64* frameNumber;
    const double* frequency;
    const double* modulation;
    const uint8* clockEnabled;
    const uint8* joined;
    const uint64* numEvents;
    // One element for each event, those of the first clock in front
    const zel::String* name;
    const uint64* number;
    const uint64* dispatchFrame;
    const double* residual;
    const uint8* scheduled;
    const double* interval;
    const double* startDelay;
    const uint8* repeating;
    const uint8* enabled;

private:
    [[noreturn]] void fail(const char* table, const char* column) const {
        ZEL_THROW(std::runtime_error,
                  zel::String::format("Frame %llu: '%s.%s.%s' does not fit the other columns of the table.",
                                      static_cast<unsigned long long>(m_frame->getIndex()),
                                      RunStateName,
                                      table,
                                      column));
    }
    [[nodiscard]] const Buffer* columnAt(const char* table, const char* column) const {
        const auto found = m_owner.m_columns.find(zel::String(table) + "." + column);
        return found == m_owner.m_columns.end() ? nullptr : found->value.get();
    }
    template <typename T>
    const T* data(const char* table, const char* column, const char* format, uint64 numRows) const {
        if (numRows == 0)
            return nullptr;
        const Buffer* buffer = columnAt(table, column);
        if (buffer == nullptr || buffer->size() != numRows || buffer->getFormat() != getFormat(format))
            fail(table, column);
        return buffer->data<T>();
    }

    const RunStateReader& m_owner;
    const Frame* m_frame;
    uint64 m_numClocks = 0;
};

void RunStateReader::take(const Frame* frame) {
    if (frame->isKeyFrame())
        m_columns.clear();
    const auto* state = dynamic_cast<const zel::Component*>(frame->findObject(zel::Name(RunStateName)));
    for (const char* table : {"clocks", "events"}) {
        const auto* component =
            state == nullptr ? nullptr
                             : dynamic_cast<const zel::Component*>(state->findObject(zel::Name(table)));
        for (zel::size_t i = 0; component != nullptr && i < component->getNumObjects(); ++i)
            if (auto* column = dynamic_cast<Buffer*>(component->getObject(i)))
                m_columns.insert(zel::String(table) + "." + column->getName().str(),
                                 zel::ref_ptr<Buffer>(column));
    }
}

void RunStateReader::apply(const Frame* frame, const Omit& omit) {
    take(frame);
    const Tables tables(*this, frame);
    zel::HashTable<zel::String, Clock*> clocks;
    for (Clock* clock : clocksOf(m_root.get(), m_clock.get()))
        clocks.insert(clock->getPath(m_root.get()).str(), clock);
    uint64 row = 0;
    for (uint64 i = 0; i < tables.numClocks(); ++i) {
        const uint64 begin = row;
        row += tables.numEvents[i];
        const auto found = clocks.find(tables.path[i]);
        if (found == clocks.end()) {
            omit(zel::Path(tables.path[i]), zel::String("there is no such clock"));
            continue;
        }
        Clock* const clock = found->value;
        // A clock goes by the quotient of the two: other numbers than its own would be rounded.
        if (clock->getFrequency() != tables.frequency[i])
            clock->setFrequency(tables.frequency[i]);
        if (clock->getTimeModulation() != tables.modulation[i])
            clock->setTimeModulation(tables.modulation[i]);
        if (clock->isEnabled() != (tables.clockEnabled[i] != 0))
            clock->setEnable(tables.clockEnabled[i] != 0);
        const EventNames known(clock, m_root.get());
        zel::Vector<Clock::EventState> schedule;
        for (uint64 k = begin; k < row; ++k) {
            Clock::Event* event = known.find(tables.name[k], tables.number[k]);
            if (event == nullptr) {
                omit(zel::Path(tables.path[i]) + zel::Name(tables.name[k]),
                     zel::String("the clock has no such event"));
                continue;
            }
            if (event->getInterval() != tables.interval[k])
                event->setInterval(tables.interval[k]);
            if (event->getStartDelay() != tables.startDelay[k])
                event->setStartDelay(tables.startDelay[k]);
            if (event->isRepeating() != (tables.repeating[k] != 0))
                event->setRepeating(tables.repeating[k] != 0);
            if (event->isEnabled() != (tables.enabled[k] != 0))
                event->setEnable(tables.enabled[k] != 0);
            schedule.push_back(
                {event, tables.dispatchFrame[k], tables.residual[k], tables.scheduled[k] != 0});
        }
        clock->restoreSchedule(tables.time[i], tables.frameNumber[i], schedule);
        clock->restoreJoined(tables.joined[i] != 0);
    }
}

} // namespace zelData
