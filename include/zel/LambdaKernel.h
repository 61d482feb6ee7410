#pragma once

#include <zel/CpuKernel.h>
#include <zel/Export.h>
#include <zel/RangeJob.h>
#include <zel/Vector.h>

#include <functional>

namespace zel {

/// A kernel made of a function. It keeps its jobs from run to run: a step allocates nothing.
///
///     LambdaKernel scale("scale", [&](const RangeJob& job) {
///         for (size_t i = job.getRange().begin(); i != job.getRange().end(); ++i)
///             y[i] = a * x[i] + y[i];
///     });
///     scale.setNumWorkItems(y.size());
///     scale.execute();
class ZEL_CORE_API LambdaKernel : public CpuKernel {
public:
    using Function = std::function<void(const RangeJob&)>;

    LambdaKernel(const Name& name, Function function, Device* device = nullptr);
    ~LambdaKernel() override;

    [[nodiscard]] RangeJob* allocateRangeJobs(size_t count) override;
    void callOnJobRange(const RangeJob& job) { m_function(job); }

    [[nodiscard]] static Model* ClassModel();

private:
    Function m_function;
    Vector<RangeJob> m_rangeJobs; // copies of one; never fewer than in the run before
};

} // namespace zel
