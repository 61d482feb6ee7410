#pragma once

#include <zel/Callback.h>
#include <zel/Integers.h>
#include <zel/InvalidIndex.h>
#include <zel/Name.h>
#include <zel/Vector.h>

#include <memory>
#include <utility>

namespace zel {

/// A list of callbacks that are fired together, in the order of connection until an entry is removed. The list
/// may change while it runs: a callback may connect and disconnect any callback, itself included.
///
/// An entry whose `active` flag is off is removed when the walk meets it, by moving the last entry into its
/// place. A callback connected during the walk is called in the same walk.
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
    [[nodiscard]] size_t size() const noexcept { return m_entries.size(); }
    [[nodiscard]] bool empty() const noexcept { return m_entries.empty(); }

    /// @param oneShot  the callback is called once and removed
    /// @return an id for disconnect, unique within this event
    uint64 connect(CallbackType callback, bool oneShot = false) {
        m_entries.push_back(std::make_shared<Entry>(Entry{std::move(callback), ++m_lastId, true, oneShot}));
        return m_lastId;
    }

    /// Switches the entry off; it is removed now, or by the walk if the event is running.
    /// @return whether there was such an active entry
    bool disconnect(uint64 id) {
        for (size_t i = 0; i < m_entries.size(); ++i) {
            if (m_entries[i]->id != id || !m_entries[i]->active)
                continue;
            m_entries[i]->active = false;
            if (!isRunning())
                m_entries.erase(m_entries.begin() + i);
            return true;
        }
        return false;
    }

    /// The entry of an id, or null.
    [[nodiscard]] Entry* find(uint64 id) {
        for (auto& entry : m_entries)
            if (entry->id == id)
                return entry.get();
        return nullptr;
    }

    /// Calls the active callbacks by index. A firing from within a callback walks the whole list once more.
    /// An exception from a callback ends the walk and leaves the list usable.
    template <typename... Arguments>
    void fire(const Arguments&... arguments) {
        Walk walk(*this);
        for (m_running = 0; m_running < m_entries.size(); ++m_running) {
            // Holds the callback while it runs: it may disconnect itself, or grow the list.
            std::shared_ptr<Entry> entry = m_entries[m_running];
            if (!entry->active || entry->oneShot) {
                m_entries[m_running] = m_entries.back();
                m_entries.pop_back();
                --m_running; // wraps below zero; the increment brings it back
            }
            if (entry->active)
                entry->callback(arguments...);
        }
    }

private:
    /// Restores the index of an outer walk, also when a callback throws.
    struct Walk {
        explicit Walk(EventT& e) : event(e), outer(e.m_running) {}
        Walk(const Walk&) = delete;
        Walk& operator=(const Walk&) = delete;
        ~Walk() { event.m_running = outer; }
        EventT& event;
        size_t outer;
    };

    [[nodiscard]] bool isRunning() const noexcept { return m_running != NotRunning; }

    // One below the value before the first entry, which the walk passes through when it removes entry 0.
    static constexpr size_t NotRunning = static_cast<size_t>(InvalidIndex) - 1;

    Vector<std::shared_ptr<Entry>> m_entries;
    Name m_name;
    void* m_source;
    uint64 m_lastId = 0;
    size_t m_running = NotRunning;
};

using Event = EventT<Callback>;
template <typename A>
using Event1 = EventT<Callback1<A>>;
template <typename A, typename B>
using Event2 = EventT<Callback2<A, B>>;
template <typename A, typename B, typename C>
using Event3 = EventT<Callback3<A, B, C>>;

} // namespace zel
