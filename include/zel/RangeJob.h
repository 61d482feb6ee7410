#pragma once

#include <zel/Callback.h>
#include <zel/Export.h>
#include <zel/Job.h>
#include <zel/Range.h>

namespace zel {

/// A job on a range of indices.
class ZEL_CORE_API RangeJob : public Job {
public:
    RangeJob() = default;
    /// @param callback  called with this job; without one the run throws std::bad_function_call
    explicit RangeJob(Callback1<const RangeJob&> callback, const IndexRange& range = IndexRange());

    void implementation() override;

    void setRangeCallback(Callback1<const RangeJob&> callback) { m_rangeCallback = std::move(callback); }
    [[nodiscard]] const Callback1<const RangeJob&>& getRangeCallback() const noexcept {
        return m_rangeCallback;
    }
    void setRange(const IndexRange& range) noexcept { m_range = range; }
    [[nodiscard]] const IndexRange& getRange() const noexcept { return m_range; }

private:
    Callback1<const RangeJob&> m_rangeCallback;
    IndexRange m_range;
};

} // namespace zel
