// The kernel "Garden.Grow": lets each plant of a storage grow by a rate. Built as the library
// libGarden.Grow.so, which the model file names by its path.
#include <zel/ArrayParameter.h>
#include <zel/EntityDataParameter.h>
#include <zel/LambdaKernel.h>
#include <zel/RangeJob.h>
#include <zel/ScalarParameter.h>
#include <zel/TaskPlugin.h>
#include <zelData/Buffer.h>
#include <zelData/EntityModel.h>
#include <zelData/Type.h>

namespace {

class Grow final : public zel::LambdaKernel {
public:
    Grow(const zel::Name& name, zel::Device* device)
        : LambdaKernel(
              name, [this](const zel::RangeJob& job) { grow(job); }, device)
        , m_rate(new zel::ScalarParameter("rate", zelData::getFormat("Real:64bit")))
        , m_height(new zel::ArrayParameter(
              "height", zelData::getFormat("Real:64bit"), zelData::AccessMode::READ_WRITE)) {
        // The storage comes first: it has as many items as the kernel.
        auto* model = dynamic_cast<zelData::EntityModel*>(zel::Model::getModel("Garden.Plant"));
        auto* plants = new zel::EntityDataParameter("plants", model, zelData::AccessMode::READ_WRITE);
        plants->addChildParameter(m_height);
        addParameter(plants);
        addParameter(m_rate);
    }

private:
    void grow(const zel::RangeJob& job) {
        const double rate = *static_cast<const double*>(m_rate->getData());
        double* const height = m_height->getBuffer()->data<double>();
        for (zel::size_t i = job.getRange().begin(); i != job.getRange().end(); ++i)
            height[i] *= 1 + rate;
    }

    zel::ScalarParameter* m_rate;  // owned by the kernel
    zel::ArrayParameter* m_height; // owned by the storage's parameter
};

zel::TaskPlugin s_plugin("Garden.Grow", zel::Device::Type::Cpu);
const zel::TaskPluginImplementationT<Grow> s_grow(s_plugin, "Grow");

} // namespace
