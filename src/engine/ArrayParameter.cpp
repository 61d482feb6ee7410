#include <zel/ArrayParameter.h>
#include <zel/Exception.h>
#include <zel/GlobalResultBuffer.h>
#include <zel/Model.h>
#include <zel/Verify.h>
#include <zel/XmlLoader.h>
#include <zelData/Buffer.h>
#include <zelData/Format.h>
#include <zelData/Type.h>

#include <tinyxml.h>

#include <atomic>
#include <stdexcept>

namespace zel {

namespace {

const XmlLoaderRegistrator s_arrayParameterLoader("Parameter.Array", &ArrayParameter::load);

const zelData::Format* defaultFormat(const zelData::Type* type) {
    return type == nullptr ? nullptr : type->getDefaultFormat();
}

} // namespace

ArrayParameter::ArrayParameter(const Name& name,
                               const zelData::Type* type,
                               uint32 accessMode,
                               const Path& path)
    : ArrayParameter(name, defaultFormat(type), accessMode, path) {}

ArrayParameter::ArrayParameter(const Name& name,
                               const zelData::Format* format,
                               uint32 accessMode,
                               const Path& path)
    : Parameter(name, ClassModel(), MetaType::Array, format, accessMode) {
    bind(path);
}

ArrayParameter::ArrayParameter(const Name& name,
                               const zelData::Type* type,
                               uint32 accessMode,
                               zelData::Buffer* buffer)
    : ArrayParameter(name, defaultFormat(type), accessMode, buffer) {}

ArrayParameter::ArrayParameter(const Name& name,
                               const zelData::Format* format,
                               uint32 accessMode,
                               zelData::Buffer* buffer)
    : ArrayParameter(name, format, accessMode) {
    m_initialBuffer = buffer;
}

ArrayParameter::~ArrayParameter() {
    leaveParent();
}

void ArrayParameter::rebind() {
    if (m_initialBuffer && getTask() != nullptr && getEnableRebind()) {
        const ref_ptr<zelData::Buffer> buffer(std::move(m_initialBuffer));
        if (getBinding() == nullptr && getBindPath().empty())
            bind(buffer.get());
    }
    Parameter::rebind();
}

zelData::Type* ArrayParameter::getType() {
    const zelData::Format* format = m_buffer ? m_buffer->getFormat() : getFormat();
    return format == nullptr ? nullptr : format->getType();
}

const zelData::Type* ArrayParameter::getType() const {
    const zelData::Format* format = m_buffer ? m_buffer->getFormat() : getFormat();
    return format == nullptr ? nullptr : format->getType();
}

bool ArrayParameter::isValid() const {
    return static_cast<bool>(m_buffer);
}

bool ArrayParameter::hasGlobalResult() const {
    return static_cast<bool>(m_globalResult);
}

void ArrayParameter::update() {
    if (m_globalResult)
        m_globalResult->prepare(getTask());
    syncArray();
}

void ArrayParameter::commit() {
    if (m_globalResult) {
        m_globalResult->finalize();
        syncArray();
    }
    if (m_buffer && isWritten())
        m_buffer->commit();
}

void ArrayParameter::prepareGlobalResultSorting(size_t numJobs) {
    if (m_globalResult)
        m_globalResult->prepareResultSorting(numJobs);
}

void ArrayParameter::syncArray() {
    m_array.bind(m_buffer.get(), {0, m_buffer ? static_cast<uint32>(m_buffer->size()) : 0});
}

void ArrayParameter::setBuffer(zelData::Buffer* buffer) {
    if (buffer != nullptr) {
        zelVerify(this->getTask());
        const zelData::Format* const format = getFormat();
        zelVerifyNAs(format == nullptr || format == zelData::Format::Auto() ||
                         buffer->getFormat()->is(format),
                     "buffer->getFormat()->is(m_format)",
                     "%s: Can not bind parameter of type %s to buffer %s of type %s",
                     getPath().c_str(),
                     formatText(format).c_str(),
                     buffer->getPath().c_str(),
                     formatText(buffer->getFormat()).c_str());
    }
    m_buffer = buffer;
    syncArray();
    setNeedsUpdate(buffer != nullptr);
    setNeedsCommit(buffer != nullptr && isWritten());
    refreshGlobalResult();
}

void ArrayParameter::_bind(Object* object) {
    leaveParent();
    if (auto* parent = dynamic_cast<ArrayParameter*>(object)) {
        m_parent = parent;
        m_parentBindId = parent->bindEvent.connect([this](Parameter* other) { parentBindCallback(other); });
        m_parentUnbindId =
            parent->unbindEvent.connect([this](Parameter* other) { parentUnbindCallback(other); });
        setBuffer(parent->getBuffer());
        return;
    }
    auto* buffer = dynamic_cast<zelData::Buffer*>(object);
    zelVerifyN(buffer != nullptr || object == nullptr,
               "%s: Can not bind an array parameter to '%s', which is no buffer",
               getPath().c_str(),
               object->getPath().c_str());
    setBuffer(buffer);
}

void ArrayParameter::leaveParent() {
    if (!m_parent)
        return;
    m_parent->bindEvent.disconnect(m_parentBindId);
    m_parent->unbindEvent.disconnect(m_parentUnbindId);
    m_parent = nullptr;
}

void ArrayParameter::parentBindCallback(Parameter* parent) {
    setBuffer(static_cast<ArrayParameter*>(parent)->getBuffer());
    bindEvent.fire(this);
}

void ArrayParameter::parentUnbindCallback(Parameter*) {
    unbindEvent.fire(this);
    setBuffer(nullptr);
}

void ArrayParameter::setGlobalResultMode(uint32 mode) {
    m_globalResultMode = mode;
    refreshGlobalResult();
}

void ArrayParameter::refreshGlobalResult() {
    m_globalResult = nullptr;
    if (m_globalResultMode == 0 || !m_buffer)
        return;
    zelVerifyN(isWritten(), "%s: A parameter that is only read can have no global result", getPath().c_str());
    m_globalResult = new GlobalResultBuffer(m_globalResultMode, getPath(), m_buffer.get());
}

void ArrayParameter::configure(TiXmlElement* element) {
    Parameter::configure(element);
    if (element->Attribute("localSize") != nullptr)
        m_localSize = parseAttribute<uint64>(element, "localSize");
}

ArrayParameter* ArrayParameter::load(TiXmlElement* element, Device* device) {
    const Name name = loadName(element);
    if (element->Attribute("format") != nullptr)
        ZEL_XML_ERROR(element, "Use type instead");
    const zelData::Format* format =
        element->Attribute("type") == nullptr ? nullptr : zelData::getFormat(element, device);
    ref_ptr<ArrayParameter> parameter(new ArrayParameter(name, format, loadAccessMode(element)));
    parameter->configure(element);
    return parameter.release_nodelete();
}

Model* ArrayParameter::ClassModel() {
    static std::atomic<Model*> s_model{nullptr};
    return Model::createBuiltinModel("Parameter.Array", Parameter::ClassModel(), s_model);
}

} // namespace zel
