#pragma once

#include <zel/Clock.h>
#include <zel/Component.h>
#include <zel/HashTable.h>
#include <zel/Name.h>
#include <zel/Path.h>
#include <zel/String.h>
#include <zel/Vector.h>
#include <zel/observer_ptr.h>
#include <zel/ref_ptr.h>
#include <zelData/Buffer.h>
#include <zelData/Frame.h>

#include <functional>

namespace zelData {

/// What a run goes by beside its data: clocks, with the events that they have scheduled. In frames it is the
/// component "_runState", whose layout docs/recording.md tells: tables in columns, each of which stands in
/// key frames and where it has changed.
inline constexpr const char* RunStateName = "_runState";

/// The clocks below the root in the order of the tree, and then those that tick with the one that is given.
[[nodiscard]] zel::Vector<zel::Clock*> clocksOf(zel::Component* root, zel::Clock* clock);

/// Adds the state of the clocks to frames.
class RunStateWriter {
public:
    /// Neither is kept alive.
    RunStateWriter(zel::Component* root, zel::Clock* clock);
    RunStateWriter(const RunStateWriter&) = delete;
    RunStateWriter& operator=(const RunStateWriter&) = delete;
    ~RunStateWriter();

    void write(Frame* frame);

private:
    void addClocks(Frame* frame);
    void addEvents(Frame* frame);
    void add(Frame* frame, const char* table, const zel::ref_ptr<Buffer>& column);

    zel::observer_ptr<zel::Component> m_root;
    zel::observer_ptr<zel::Clock> m_clock;
    zel::uint64 m_added = 0;
    zel::uint64 m_removed = 0;
    bool m_isKnown = false; // until the tree changes
    zel::Vector<zel::observer_ptr<zel::Clock>> m_clocks;
    zel::HashTable<zel::String, zel::ref_ptr<Buffer>> m_last; // of each column
};

/// Puts clocks back to where frames tell.
class RunStateReader {
public:
    using Omit = std::function<void(const zel::Path&, const zel::String&)>;

    /// Neither is kept alive.
    RunStateReader(zel::Component* root, zel::Clock* clock) : m_root(root), m_clock(clock) {}

    /// Takes in what the frame tells, and brings the clocks there.
    /// @param omit  told of clocks and events that are not in the tree
    /// @throws std::runtime_error  where the tables do not fit together, with nothing changed
    void apply(const Frame* frame, const Omit& omit);

private:
    class Tables;

    void take(const Frame* frame);

    zel::observer_ptr<zel::Component> m_root;
    zel::observer_ptr<zel::Clock> m_clock;
    zel::HashTable<zel::String, zel::ref_ptr<Buffer>> m_columns; // as last told
};

} // namespace zelData
