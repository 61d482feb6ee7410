#include <zel/RangeJob.h>

#include <utility>

namespace zel {

RangeJob::RangeJob(Callback1<const RangeJob&> callback, const IndexRange& range)
    : m_rangeCallback(std::move(callback)), m_range(range) {}

void RangeJob::implementation() {
    m_rangeCallback(*this);
}

} // namespace zel
