#include <zel/LambdaKernel.h>
#include <zel/Model.h>

#include <atomic>
#include <utility>

namespace zel {

LambdaKernel::LambdaKernel(const Name& name, Function function, Device* device)
    : CpuKernel(
          name, Callback1<const RangeJob&>([this](const RangeJob& job) { callOnJobRange(job); }), device)
    , m_function(std::move(function)) {
    setModel(ClassModel());
}

LambdaKernel::~LambdaKernel() {
    disconnect();
    removeAllJobs(); // which go ahead of the base that knows them
}

RangeJob* LambdaKernel::allocateRangeJobs(size_t count) {
    if (count > m_rangeJobs.size()) {
        // The old ones are in use by nobody, and need not be moved.
        m_rangeJobs.clear();
        m_rangeJobs.resize(count, RangeJob(getRangeCallback()));
    }
    return m_rangeJobs.data();
}

Model* LambdaKernel::ClassModel() {
    static std::atomic<Model*> s_model{nullptr};
    return Model::createBuiltinModel("zel.LambdaKernel", CpuKernel::ClassModel(), s_model);
}

} // namespace zel
