#include <zel/Exception.h>
#include <zel/Model.h>
#include <zel/XmlLoader.h>
#include <zelData/PointerAttribute.h>
#include <zelData/Type.h>

#include <tinyxml.h>

#include <stdexcept>

namespace zelData {

PointerAttribute::PointerAttribute(const zel::Name& name)
    : ScalarAttribute(name, zelData::getType("Pointer")) {
    setModel(ClassModel());
}

PointerAttribute* PointerAttribute::load(zel::TiXmlElement* element) {
    const char* name = element->Attribute("name");
    if (name == nullptr)
        ZEL_XML_ERROR(element, "Attribute must have a name!");
    return new PointerAttribute(name);
}

zel::Model* PointerAttribute::ClassModel() {
    static std::atomic<zel::Model*> s_model{nullptr};
    return zel::Model::createBuiltinModel("zelData.PointerAttribute", ScalarAttribute::ClassModel(), s_model);
}

} // namespace zelData
