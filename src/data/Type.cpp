#include "TypeRegistry.h"

#include <zel/Verify.h>

#include <mutex>

namespace zelData {

Type::Type(const zel::Name& name) : Model(name, nullptr) {
    setModel(ClassModel());
    const std::lock_guard lock(detail::getTypeSystemMutex());
    TypeTable& types = TypeRegistry::instance().types;
    zelVerifyN(!types.contains(name), "Type name '%s' is not unique!", name.c_str());
    m_id = types.size();
    types.push_back(name, this);
}

Type::~Type() = default;

void Type::addFormat(Format* format, bool makeDefault) {
    zelVerify(format);
    const std::lock_guard lock(detail::getTypeSystemMutex());
    m_formats.insert(format->getName(), format);
    format->setType(this);
    if (format->getContext() != this)
        addObject(format);
    if (makeDefault)
        setDefaultFormat(format);
}

void Type::setDefaultFormat(Format* format) {
    m_defaultFormat = format;
}

Format* Type::getFormat(const zel::Name& name) const {
    const std::lock_guard lock(detail::getTypeSystemMutex());
    const auto position = m_formats.find(name);
    return position == m_formats.end() ? nullptr : position->value.get();
}

zel::Model* Type::ClassModel() {
    static std::atomic<zel::Model*> s_model{nullptr};
    return createBuiltinModel("zelData.Type", Model::ClassModel(), s_model);
}

} // namespace zelData
