#include "EntityXml.h"
#include "containers/NearName.h"
#include "tree/ModelLoads.h"

#include <zel/Exception.h>
#include <zel/HashTable.h>
#include <zel/Log.h>
#include <zel/Namespace.h>
#include <zel/Verify.h>
#include <zel/XmlLoader.h>
#include <zelData/ArrayAttribute.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityStorage.h>
#include <zelData/Format.h>
#include <zelData/HashSetAttribute.h>
#include <zelData/PointerAttribute.h>
#include <zelData/ScalarAttribute.h>
#include <zelData/SharedAttribute.h>
#include <zelData/Type.h>
#include <zelData/VectorAttribute.h>

#include <tinyxml.h>

#include <algorithm>
#include <mutex>
#include <stdexcept>

// How entities come from XML, and how they are found.

namespace zelData {

namespace {

/// Made on first use, so that registration works in any static constructor.
zel::HashTable<zel::String, EntityModel::Loader*>& s_entityLoaderTable() {
    static zel::HashTable<zel::String, EntityModel::Loader*> table;
    return table;
}

/// The model that an element of another document may not make a second time; null if there is none.
zel::Model* findModel(const zel::Path& space, const zel::Name& name) {
    const zel::Namespace* models = zel::Model::getNamespace(space);
    return models == nullptr ? nullptr
                             : dynamic_cast<zel::Model*>(models->findObject(name, zel::Model::ClassModel()));
}

} // namespace

/// Makes entities from the top-level elements of model files.
class EntityModel::FileLoader : public zel::Model::Loader {
public:
    FileLoader() : zel::Model::Loader("Entity.Model", "zelEntity") { addAlias("Entity"); }

    zel::Model* load(zel::TiXmlElement* element, const zel::Path& path) override {
        // An element that names an existing entity makes none.
        return element->Attribute("instance") == nullptr ? make(element, path) : nullptr;
    }

private:
    static FileLoader s_loader;
};

EntityModel::FileLoader EntityModel::FileLoader::s_loader;

namespace {

zel::Object* loadEntityModel(zel::TiXmlElement* element, zel::Device* device) {
    return EntityModel::load(element, device);
}

const zel::XmlLoaderRegistrator s_entityModelLoader("Entity.Model", loadEntityModel);
const zel::XmlLoaderRegistrator s_entityLoader("Entity", loadEntityModel);

} // namespace

EntityModel::Loader::Loader(const char* path) : m_path(path) {
    const zel::String modelPath(path);
    zelVerify(!s_entityLoaderTable().contains(modelPath));
    s_entityLoaderTable().insert(modelPath, this);
}

EntityModel::Loader::~Loader() {
    s_entityLoaderTable().erase(zel::String(m_path));
}

EntityModel* EntityModel::make(zel::TiXmlElement* element, const zel::Path& space) {
    const auto name = zel::parseAttribute<zel::Name>(element, "name");
    EntityModel* base = getRootModel();
    if (const char* source = element->Attribute("source")) {
        base = findEntity(element, source);
        if (base == nullptr)
            ZEL_XML_ERROR(element,
                          zel::String::format("Unable to load source entity '%s'", source) +
                              explainMissingEntity(element, source));
    }
    const auto loader = s_entityLoaderTable().find((space + zel::Path(name)).str());
    zel::ref_ptr<EntityModel> model(loader == s_entityLoaderTable().end() ? new EntityModel(name)
                                                                          : loader->value->load());
    model->setBaseEntity(base);
    model->configure(element);
    model->initAttributeAccessors();
    return model.release_nodelete();
}

EntityModel* EntityModel::load(zel::TiXmlElement* element, zel::Device*) {
    const std::lock_guard lock(zel::getTypeSystemMutex());
    if (const char* instance = element->Attribute("instance")) {
        EntityModel* model = findEntity(element, instance);
        if (model == nullptr)
            ZEL_XML_ERROR(element,
                          zel::String::format("Unable to load entity '%s'", instance) +
                              explainMissingEntity(element, instance));
        return model;
    }
    const zel::TiXmlDocument* document = element->GetDocument();
    if (document == nullptr || element->Parent() != document)
        return make(element, zel::Path());

    const zel::Path space = zel::Model::getPath(element);
    const auto name = zel::parseAttribute<zel::Name>(element, "name");
    if (zel::Model* existing = findModel(space, name)) {
        // The file of a component is read again for each component that is made from it.
        auto* entity = dynamic_cast<EntityModel*>(existing);
        if (entity != nullptr && !entity->getSourcePath().empty() &&
            entity->getSourcePath() == document->ValueStr())
            return entity;
        ZEL_XML_ERROR(element, zel::describeDuplicate(*existing, space));
    }
    zel::ref_ptr<EntityModel> model(make(element, space));
    model->setSourcePath(document->ValueStr(), element->Row());
    getOrCreateNamespace(space)->addObject(model.get());
    zel::ModelLoads::added(model.get());
    return model.get();
}

void EntityModel::configure(zel::TiXmlElement* element) {
    // Not the component's: the child elements are attributes.
    Object::configure(element); // NOLINT(bugprone-parent-virtual-call)
    if (element->Attribute("useInstanceTable") != nullptr)
        m_useInstanceTable = zel::parseAttribute<bool>(element, "useInstanceTable");
    if (element->Attribute("hasConstructor") != nullptr)
        m_hasConstructor = zel::parseAttribute<bool>(element, "hasConstructor");
    for (zel::TiXmlElement* child = element->FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement())
        configureChild(child);
}

void EntityModel::configureChild(zel::TiXmlElement* child) {
    const std::string& tag = child->ValueStr();
    if (tag == "Shared.Buffer") {
        const char* name = child->Attribute("name");
        if (name == nullptr)
            ZEL_XML_ERROR(child, "Shared buffer must have a name");
        const Format* format = getFormat(child, nullptr);
        if (format == nullptr)
            ZEL_XML_ERROR(child, "The type of the buffer has no format of its own");
        addSharedBuffer(name, format);
        return;
    }
    if (tag == "Shared.Storage") {
        const char* name = child->Attribute("name");
        if (name == nullptr)
            ZEL_XML_ERROR(child, "Shared storage must have a name");
        const char* entity = child->Attribute("entity");
        if (entity == nullptr)
            ZEL_XML_ERROR(child, "Shared storage must have a specified entity");
        addSharedStorage(name, entity);
        return;
    }

    zel::ref_ptr<Attribute> attribute;
    if (tag == "Attribute") {
        ZEL_LOG_WARNING("Attribute is old syntax, use Attribute.Scalar");
        attribute = ScalarAttribute::load(child);
    } else if (tag == "Attribute.Scalar") {
        attribute = ScalarAttribute::load(child);
    } else if (tag == "Attribute.Shared") {
        attribute = SharedAttribute::load(child);
    } else if (tag == "Attribute.Pointer") {
        attribute = PointerAttribute::load(child);
    } else if (tag == "Attribute.Array") {
        attribute = ArrayAttribute::load(child);
    } else if (tag == "Attribute.Vector") {
        attribute = VectorAttribute::load(child);
    } else if (tag == "Attribute.HashSet") {
        attribute = HashSetAttribute::load(child);
    } else {
        zel::NearName near(tag);
        for (const char* known : {"Attribute.Scalar",
                                  "Attribute.Shared",
                                  "Attribute.Pointer",
                                  "Attribute.Array",
                                  "Attribute.Vector",
                                  "Shared.Buffer",
                                  "Shared.Storage"})
            near.consider(known);
        ZEL_XML_ERROR(child, zel::String::format("Invalid attribute type '%s'", tag.c_str()) + near.hint());
    }
    if (getAttribute(attribute->getName()) != nullptr)
        ZEL_XML_ERROR(child,
                      zel::String::format("%s: There is already an attribute registered with name '%s'",
                                          getName().c_str(),
                                          attribute->getName().c_str()));
    addAttribute(attribute.get());
}

bool EntityModel::findEntityPath(const zel::Path& path,
                                 zel::String& resultPath,
                                 zel::String& implementationName) {
    zel::Path remainder;
    if (!getDiskPath(path, resultPath, remainder, "zelEntity"))
        return false;
    implementationName = "zel";
    for (const zel::Name part : path)
        implementationName += "::" + part.str();
    return true;
}

EntityModel* getEntity(const zel::Path& path) {
    EntityModel* model = loadEntity(path);
    if (model == nullptr)
        ZEL_LOG_WARNING("Could not load entity '" << path << "'");
    return model;
}

bool hasEntity(const zel::Path& path) {
    return loadEntity(path) != nullptr;
}

} // namespace zelData
