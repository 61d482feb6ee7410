#pragma once

#include <zel/FirstException.h>
#include <zel/Integers.h>
#include <zelData/Value.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>

namespace zelData {

/// One update under way: how far it has come in the dependents of each value on the way down from where it
/// began. Keeps a stack of its own, so that chains may be of any length, and so that the values that
/// callbacks unbind, bind and destroy meanwhile can be found in it.
class Value::Walk {
public:
    explicit Walk(Value* root) noexcept : m_root(root), m_outer(t_innermost) { t_innermost = this; }
    Walk(const Walk&) = delete;
    Walk& operator=(const Walk&) = delete;
    ~Walk() {
        while (m_size != 0) // left over when the thread is cancelled
            pop();
        t_innermost = m_outer;
    }

    void run() {
        enter(m_root);
        while (m_size != 0) {
            Level& level = m_levels[m_size - 1];
            if (level.next >= level.end || level.value->m_propagationAborted) {
                pop();
                continue;
            }
            Value* const dependent = level.value->m_dependents[level.next++];
            if (dependent == nullptr || !dependent->m_audible)
                continue;
            m_failure.run([&] {
                if (dependent->m_transform != nullptr)
                    convert(level.value, dependent);
                enter(dependent);
            });
        }
        m_failure.rethrow();
    }

    /// No walk is to look at the value again.
    static void forget(const Value* value) noexcept {
        if (value->m_numWalks != 0)
            forEachLevel(value, [](Level& level) { level = Level{nullptr, 0, 0}; });
    }
    static void dependentsCleared(const Value* value) noexcept {
        if (value->m_numWalks != 0)
            forEachLevel(value, [](Level& level) { level.next = level.end = 0; });
    }
    /// Called ahead of it: the places that are empty go.
    static void dependentsClosingUp(const Value* value) noexcept {
        if (value->m_numWalks != 0)
            forEachLevel(value, [value](Level& level) {
                Value* const* const begin = value->m_dependents.begin();
                const auto present = [begin](zel::uint32 end) {
                    return end - static_cast<zel::uint32>(std::count(begin, begin + end, nullptr));
                };
                level.next = present(level.next);
                level.end = present(level.end);
            });
    }

private:
    struct Level {
        Value* value; // null once it has been destroyed
        zel::uint32 next;
        zel::uint32 end; // those that are bound meanwhile have been told already
    };

    void enter(Value* value) {
        if (!value->hasCallbacks()) {
            descend(value);
            return;
        }
        // The callbacks may drop the last reference but this one; then nothing depends on the value.
        const zel::ref_ptr<Value> keep(value->referenceCount() > 0 ? value : nullptr);
        m_failure.run([value] { value->updateEvent.fire(value); });
        m_failure.run([value] { value->m_eventDispatch.triggerUpdateEvent(value); });
        if (!value->hasCallbacks())
            value->updateAudible(); // those that were to be called once have gone
        descend(value);
    }

    void descend(Value* value) {
        value->m_propagationAborted = false;
        if (value->m_numAudible == 0)
            return;
        if (m_size == m_capacity) [[unlikely]]
            grow();
        m_levels[m_size++] = Level{value, 0, static_cast<zel::uint32>(value->m_dependents.size())};
        ++value->m_numWalks;
    }

    void pop() noexcept {
        const Level& level = m_levels[--m_size];
        if (level.value != nullptr)
            --level.value->m_numWalks;
    }

    static void convert(const Value* from, Value* to) {
        if (from->m_storage == nullptr)
            return;
        if (to->m_storage == nullptr)
            to->allocate();
        to->m_transform(to->m_storage, from->m_storage, 1);
    }

    [[gnu::noinline]] void grow() {
        auto levels = std::make_unique<Level[]>(2 * m_capacity); // NOLINT(modernize-avoid-c-arrays)
        std::copy_n(m_levels, m_size, levels.get());
        m_capacity *= 2;
        m_spilled = std::move(levels);
        m_levels = m_spilled.get();
    }

    template <typename Function>
    static void forEachLevel(const Value* value, Function&& function) noexcept {
        for (Walk* walk = t_innermost; walk != nullptr; walk = walk->m_outer)
            for (zel::size_t i = 0; i < walk->m_size; ++i)
                if (walk->m_levels[i].value == value)
                    function(walk->m_levels[i]);
    }

    static constinit thread_local Walk* t_innermost;

    Value* m_root;
    zel::FirstException m_failure; // of a callback or a conversion; the others get to know all the same
    Walk* m_outer;
    std::array<Level, 16> m_inline;
    Level* m_levels = m_inline.data();
    zel::size_t m_size = 0;
    zel::size_t m_capacity = m_inline.size();
    std::unique_ptr<Level[]> m_spilled; // NOLINT(modernize-avoid-c-arrays): grown by hand
};

} // namespace zelData
