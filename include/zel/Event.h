#pragma once

#include <zel/Callback.h>
#include <zel/FirstException.h>
#include <zel/Integers.h>
#include <zel/Name.h>
#include <zel/Vector.h>

#include <memory>
#include <utility>

namespace zel {

/// A list of callbacks that are fired together, in the order of connection until an entry is removed. The
/// list may change while it runs: a callback may connect and disconnect any callback, itself included, and
/// may fire the event again.
///
/// An entry whose `active` flag is off is not called, and is removed when a walk meets it, by moving the last
/// entry into its place, which is then visited in turn. A callback connected during the walk is called in the
/// same walk. A firing from within a callback walks the whole list once more and leaves the removals to the
/// outer walk, so that no walk misses an entry.
/// @threads external lock
template <typename CallbackType>
class EventT {
public:
    /// One connected callback; `active` off asks for removal at the next firing.
    struct Entry {
        CallbackType callback;
        uint64 id = 0;
        bool active = true;
        bool oneShot = false;
    };

    explicit EventT(const Name& name = Name(), void* source = nullptr) : m_name(name), m_source(source) {}

    [[nodiscard]] const Name& getName() const noexcept { return m_name; }
    /// The object that owns the event; may be null.
    [[nodiscard]] void* getSource() const noexcept { return m_source; }
    /// The number of entries, with those that await their removal.
    [[nodiscard]] size_t size() const noexcept { return m_list ? m_list->entries.size() : 0; }
    [[nodiscard]] bool empty() const noexcept { return size() == 0; }

    /// @param oneShot  the callback is called once and removed
    /// @return an id for disconnect, unique within this event
    uint64 connect(CallbackType callback, bool oneShot = false) {
        if (!m_list)
            m_list = std::make_unique<List>();
        const uint64 id = ++m_list->lastId;
        m_list->entries.push_back(std::make_unique<Entry>(Entry{std::move(callback), id, true, oneShot}));
        return id;
    }

    /// Switches the entry off; it is removed now, or by a later walk if the event is running.
    /// @return whether there was such an active entry
    bool disconnect(uint64 id) {
        if (!m_list)
            return false;
        for (auto& entry : m_list->entries) {
            if (entry->id != id || !entry->active)
                continue;
            entry->active = false;
            if (m_list->depth == 0)
                m_list->entries.erase(&entry);
            return true;
        }
        return false;
    }

    /// The entry of an id, or null; valid until it is removed.
    [[nodiscard]] Entry* find(uint64 id) {
        if (!m_list)
            return nullptr;
        for (auto& entry : m_list->entries)
            if (entry->id == id)
                return entry.get();
        return nullptr;
    }

    /// Lets the processor fetch what a firing will read, for callers with thousands of events to fire: first
    /// the list, and, once that is there, the callback.
    void prefetchList() const noexcept { __builtin_prefetch(m_list.get()); }
    void prefetchCallback() const noexcept {
        if (m_list && !m_list->entries.empty())
            __builtin_prefetch(m_list->entries.front().get());
    }

    /// Calls the active callbacks by index, each also where another one throws; the first exception comes out
    /// at the end.
    template <typename... Arguments>
    void fire(Arguments&&... arguments) {
        if (!m_list)
            return;
        auto& entries = m_list->entries;
        const Walk walk(m_list->depth);
        FirstException failure;
        for (size_t running = 0; running < entries.size(); ++running) {
            // Entries stay where they are while their callbacks run, whatever those do to the list.
            Entry* entry = entries[running].get();
            std::unique_ptr<Entry> removed;
            if ((!entry->active || entry->oneShot) && m_list->depth == 1) {
                removed = std::exchange(entries[running], nullptr);
                if (running + 1 < entries.size())
                    entries[running] = std::move(entries.back());
                entries.pop_back();
                --running; // wraps below zero; the increment brings it back
            }
            if (!entry->active)
                continue;
            if (entry->oneShot)
                entry->active = false;
            failure.run([&] { entry->callback(arguments...); });
        }
        failure.rethrow();
    }

private:
    /// Counts the walks under way, also when a callback throws.
    struct Walk {
        explicit Walk(size_t& d) : depth(d) { ++depth; }
        Walk(const Walk&) = delete;
        Walk& operator=(const Walk&) = delete;
        ~Walk() { --depth; }
        size_t& depth;
    };

    struct List {
        Vector<std::unique_ptr<Entry>> entries;
        uint64 lastId = 0;
        size_t depth = 0;
    };

    Name m_name;
    void* m_source;
    // Made for the first callback: most events of a large tree never get one.
    std::unique_ptr<List> m_list;
};

using Event = EventT<Callback>;
template <typename A>
using Event1 = EventT<Callback1<A>>;
template <typename A, typename B>
using Event2 = EventT<Callback2<A, B>>;
template <typename A, typename B, typename C>
using Event3 = EventT<Callback3<A, B, C>>;

} // namespace zel
