#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Referenced.h>

#include <atomic>
#include <memory>
#include <type_traits>

namespace zelData {
class Value;
} // namespace zelData

namespace zel {

/// A copy of a C text on the heap; null for null.
[[nodiscard]] ZEL_CORE_API std::unique_ptr<char[]> copyString(const char* text);

/// A number that a provider publishes; see Statistics.
/// @threads as its provider, unless noted otherwise
class ZEL_CORE_API StatisticsData : public Referenced {
public:
    /// @param name    copied; may be null
    /// @param timing  whether reports show the number under "- Timings:", and not under "- Data:"
    explicit StatisticsData(const char* name, bool timing = false);
    ~StatisticsData() override;

    /// @return a new value without owner, named as the data, with the current number
    [[nodiscard]] virtual zelData::Value* toValue() const = 0;
    /// Sets the current number to zero, and with `all` the accumulated one and the count as well.
    virtual void clear(bool all) = 0;
    /// The current number.
    [[nodiscard]] virtual const void* valuePtr() const = 0;
    [[nodiscard]] virtual const void* accumulatedPtr() const = 0;

    [[nodiscard]] const char* getName() const noexcept { return m_name.get(); }
    [[nodiscard]] bool isTiming() const noexcept { return m_timing; }

private:
    std::unique_ptr<char[]> m_name;
    bool m_timing;
};

/// A number of type T: what it is now, the sum of all that was added since it was last cleared as a whole,
/// and how often.
/// @threads any thread. Writers take no lock: of two that add at once, one addition may be lost.
template <typename T>
class ZEL_CORE_API StatisticsDataT final : public StatisticsData {
    static_assert(std::is_same_v<T, double> || std::is_same_v<T, float> || std::is_same_v<T, unsigned long>);

public:
    using StatisticsData::StatisticsData;

    /// Adds to the current and to the accumulated number, and counts up by one.
    void add(T number) noexcept {
        increase(m_value, number);
        increase(m_accumulated, number);
        increase(m_count, T{1});
    }
    /// Sets the current number alone.
    void set(T number) noexcept { store(m_value, number); }

    [[nodiscard]] T getValue() const noexcept { return load(m_value); }
    [[nodiscard]] T getAccumulated() const noexcept { return load(m_accumulated); }
    /// How often something was added.
    [[nodiscard]] T getCount() const noexcept { return load(m_count); }

    /// Of the type "Real".
    [[nodiscard]] zelData::Value* toValue() const override;
    void clear(bool all) override {
        store(m_value, T{});
        if (all) {
            store(m_accumulated, T{});
            store(m_count, T{});
        }
    }
    [[nodiscard]] const void* valuePtr() const override { return &m_value; }
    [[nodiscard]] const void* accumulatedPtr() const override { return &m_accumulated; }

private:
    // Relaxed: a report may show stale numbers, and publishes nothing else.
    static T load(T& number) noexcept { return std::atomic_ref(number).load(std::memory_order_relaxed); }
    static void store(T& number, T value) noexcept {
        std::atomic_ref(number).store(value, std::memory_order_relaxed);
    }
    static void increase(T& number, T by) noexcept { store(number, load(number) + by); }

    // Plain numbers, so that valuePtr can show them; written through atomic references alone.
    mutable T m_value{};
    mutable T m_accumulated{};
    mutable T m_count{};
};

extern template class ZEL_CORE_API StatisticsDataT<double>;
extern template class ZEL_CORE_API StatisticsDataT<float>;
extern template class ZEL_CORE_API StatisticsDataT<unsigned long>;

} // namespace zel
