#include "EntityXml.h"

#include <zel/Exception.h>
#include <zel/Model.h>
#include <zel/XmlLoader.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityStorage.h>
#include <zelData/ValueT.h>

#include <tinyxml.h>

#include <stdexcept>

// Storages in XML, and as parts of paths.

namespace zelData {

namespace {

zel::Object* loadStorage(zel::TiXmlElement* element, zel::Device* device) {
    return EntityStorage::load(element, device);
}

const zel::XmlLoaderRegistrator s_storageLoader("Entity.Storage", loadStorage);

} // namespace

EntityStorage* EntityStorage::load(zel::TiXmlElement* element, zel::Device* device) {
    const char* entity = element->Attribute("entity");
    if (entity == nullptr)
        ZEL_XML_ERROR(element, "Must specify an entity for the storage");
    EntityModel* model = findEntity(element, entity);
    if (model == nullptr)
        ZEL_XML_ERROR(element,
                      zel::String::format("Unable to load entity '%s'", entity) +
                          explainMissingEntity(element, entity));
    // The columns name the storage from the beginning.
    const char* name = element->Attribute("name");
    zel::ref_ptr<EntityStorage> storage(name == nullptr
                                            ? new EntityStorage(model, DefaultCapacity)
                                            : new EntityStorage(model, zel::Name(name), DefaultCapacity));
    storage->setDevice(device);
    storage->configure(element);
    return storage.release_nodelete();
}

void EntityStorage::configure(zel::TiXmlElement* element) {
    // Not the component's: the child elements are read below.
    Object::configure(element); // NOLINT(bugprone-parent-virtual-call)
    if (const char* name = element->Attribute("name"))
        if (getName() != zel::Name(name))
            setName(name);
    for (zel::TiXmlElement* child = element->FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement()) {
        const char* path = child->Attribute("instance");
        if (path == nullptr || child->ValueStr() != "Value") {
            const zel::ref_ptr<zel::Object> object(zel::Object::load(child, getDevice()));
            addObject(object.get());
            continue;
        }
        auto* value = dynamic_cast<Value*>(getResource(zel::Path(path)));
        if (value == nullptr)
            ZEL_XML_ERROR(
                child,
                zel::String::format("%s: Could not locate value instance '%s'", getPath().c_str(), path));
        value->configure(child);
    }
    if (element->Attribute("capacity") != nullptr) {
        const auto capacity = zel::parseAttribute<zel::uint64>(element, "capacity");
        if (capacity > MaximumCapacity)
            ZEL_XML_ERROR(element, "Unable to parse attribute capacity");
        reserve(capacity);
    }
    if (const char* numElements = element->Attribute("numElements")) {
        checkCount(element, "numElements", 0, MaximumCapacity);
        m_sizeValue->setExpression(std::string(numElements));
    }
}

zel::Object* EntityStorage::getResourceImpl(const zel::Path& path, zel::Model* model) {
    // The entity is asked for as well as the class.
    if (!path.empty() && !path.hasTail() && path.root() == getName() && model != nullptr && m_entity &&
        m_entity->is(model))
        return this;
    return zel::Component::getResourceImpl(path, model);
}

} // namespace zelData
