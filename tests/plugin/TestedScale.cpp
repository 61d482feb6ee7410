#include <zel/ArrayParameter.h>
#include <zel/LambdaKernel.h>
#include <zel/RangeJob.h>
#include <zel/ScalarParameter.h>
#include <zel/SerialTask.h>
#include <zel/TaskPlugin.h>
#include <zelData/Buffer.h>
#include <zelData/Type.h>

// Kernels for the tests: "Tested.Scale" multiplies an array, in real or whole numbers.

namespace {

using zelData::AccessMode::READ;
using zelData::AccessMode::READ_WRITE;

template <typename T>
class Scale final : public zel::LambdaKernel {
public:
    Scale(const zel::Name& name, zel::Device* device)
        : LambdaKernel(
              name, [this](const zel::RangeJob& job) { run(job); }, device) {
        const char* const format = sizeof(T) == sizeof(float) ? "Real:32bit" : "Real:64bit";
        m_factor = new zel::ScalarParameter("factor", zelData::getFormat(format), READ);
        m_array = new zel::ArrayParameter("array", zelData::getFormat(format), READ_WRITE);
        addParameter(m_factor);
        addParameter(m_array);
    }

private:
    void run(const zel::RangeJob& job) {
        const T factor = *static_cast<const T*>(m_factor->getData());
        T* const elements = m_array->getBuffer()->data<T>();
        for (zel::size_t i = job.getRange().begin(); i != job.getRange().end(); ++i)
            elements[i] *= factor;
    }

    zel::ScalarParameter* m_factor; // owned by the task, as the next
    zel::ArrayParameter* m_array;
};

zel::TaskPlugin s_plugin("Tested.Scale", zel::Device::Type::Cpu);
const zel::TaskPluginImplementationT<Scale<float>> s_narrow(s_plugin, "ScaleFloat");
const zel::TaskPluginImplementationT<Scale<double>> s_wide(s_plugin, "ScaleDouble");

} // namespace
