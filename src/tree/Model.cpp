#include "ModelCleanup.h"
#include "ModelLoads.h"

#include <zel/Model.h>
#include <zel/Namespace.h>
#include <zel/Verify.h>

#include <json/value.h>

#include <array>
#include <cstdlib>
#include <utility>

namespace zel {

namespace {

/// The tree and the models of the core classes; guarded by the type-system mutex. Plain pointers, so that no
/// static destructor takes the tree from those that still look.
constinit std::atomic<Namespace*> s_root{nullptr};
constinit std::array<std::atomic<Model*>, 4> s_core{};

} // namespace

TypeSystemMutex& getTypeSystemMutex() {
    static TypeSystemMutex mutex;
    return mutex;
}

Model::Model(const Name& name, Model* source) : Component(name, nullptr) {
    setSource(source);
    setModel(s_core[static_cast<size_t>(CoreClass::Model)].load(std::memory_order_acquire));
}

Model::Model(const Name& name, const Name& implementationName) : Model(name, nullptr) {
    m_implementationName = implementationName;
}

Model::~Model() = default;

Model* Model::classModel(CoreClass coreClass) {
    auto& slot = s_core[static_cast<size_t>(coreClass)];
    // Pairs with the release in makeTree: a model that is seen is complete.
    if (Model* model = slot.load(std::memory_order_acquire))
        return model;
    makeTree();
    return slot.load(std::memory_order_acquire);
}

Model* Model::ClassModel() {
    return classModel(CoreClass::Model);
}

Namespace* Model::root() {
    if (Namespace* tree = s_root.load(std::memory_order_acquire))
        return tree;
    makeTree();
    return s_root.load(std::memory_order_acquire);
}

/// The core classes describe each other, so their models are made without a model of their own first.
void Model::makeTree() {
    const std::lock_guard lock(getTypeSystemMutex());
    if (s_root.load(std::memory_order_relaxed) != nullptr)
        return;
    SlotTable& slots = getReverseBuiltinModelTable();
    ModelCleanup::ensure();
    auto* tree = new Namespace("Root");
    tree->reference();
    auto* zel = new Namespace("zel");
    tree->addObject(zel);

    std::array<Model*, 4> core{};
    const auto make = [&](CoreClass coreClass, const char* name, Model* base) {
        Model*& model = core[static_cast<size_t>(coreClass)];
        model = new Model(name, base);
        zel->addObject(model);
        return model;
    };
    Model* object = make(CoreClass::Object, "Object", nullptr);
    Model* component = make(CoreClass::Component, "Component", object);
    Model* meta = make(CoreClass::Model, "Model", component);
    Model* space = make(CoreClass::Namespace, "Namespace", component);
    for (Model* model : core)
        model->setModel(meta);
    tree->setModel(space);
    zel->setModel(space);

    for (size_t i = 0; i < core.size(); ++i) {
        slots.insert(core[i], &s_core[i]);
        s_core[i].store(core[i], std::memory_order_release);
    }
    s_root.store(tree, std::memory_order_release);
}

namespace {

/// Tells late callers that the table is gone.
struct SlotTableOwner {
    HashTable<Model*, std::atomic<Model*>*> table;
    static constinit bool s_destroyed;
    ~SlotTableOwner() { s_destroyed = true; }
};
constinit bool SlotTableOwner::s_destroyed = false;

} // namespace

Model::SlotTable& Model::getReverseBuiltinModelTable() {
    if (SlotTableOwner::s_destroyed)
        zelAbort("getReverseBuiltinModelTable called but the table is already destroyed.");
    static SlotTableOwner owner;
    return owner.table;
}

Model* Model::createBuiltinModel(const Path& path, Model* base, std::atomic<Model*>& slot) {
    // Pairs with the release below: a model that is seen is complete.
    if (Model* model = slot.load(std::memory_order_acquire))
        return model;
    const std::lock_guard lock(getTypeSystemMutex());
    if (Model* model = slot.load(std::memory_order_relaxed))
        return model;
    SlotTable& slots = getReverseBuiltinModelTable();
    Model* model = createModel(path.base(), path.back(), base);
    slots.insert(model, &slot);
    slot.store(model, std::memory_order_release);
    return model;
}

Model* Model::createImplementedModel(const Path& path, std::atomic<Model*>& slot) {
    const std::lock_guard lock(getTypeSystemMutex());
    Model* model = createBuiltinModel(path, nullptr, slot);
    model->setImplementationName(path.back());
    return model;
}

Model* Model::createModel(const Path& path, const Name& name, Model* base) {
    const std::lock_guard lock(getTypeSystemMutex());
    Namespace* space = getOrCreateNamespace(path);
    ref_ptr<Model> model(new Model(name, base));
    registerModel(model.get(), space);
    return model.get();
}

void Model::registerModel(Model* model, Namespace* space) {
    space->addObject(model);
}

Namespace* Model::getNamespace(const Path& path) {
    const std::lock_guard lock(getTypeSystemMutex());
    Namespace* space = root();
    for (const Name part : path) {
        space = dynamic_cast<Namespace*>(space->findObject(part, Namespace::ClassModel()));
        if (space == nullptr)
            return nullptr;
    }
    return space;
}

Namespace* Model::getOrCreateNamespace(const Path& path) {
    const std::lock_guard lock(getTypeSystemMutex());
    Namespace* space = root();
    for (const Name part : path) {
        auto* next = dynamic_cast<Namespace*>(space->findObject(part, Namespace::ClassModel()));
        if (next == nullptr) {
            next = new Namespace(part);
            next->setModel(Namespace::ClassModel());
            space->addObject(next);
            ModelLoads::added(next);
        }
        space = next;
    }
    return space;
}

Model* Model::findInTree(const Path& path, const Name& name) {
    const Namespace* space = getNamespace(path);
    return space == nullptr ? nullptr : dynamic_cast<Model*>(space->findObject(name, ClassModel()));
}

void Model::setSource(Model* source) {
    zelVerifyN(
        source == nullptr || !source->is(this), "%s: a model can not inherit from itself", getName().c_str());
    m_source = source;
}

bool Model::hasSource(const Model* model) const {
    return m_source && m_source->is(model);
}

bool Model::is(const Model* model) const {
    for (const Model* above = this; above != nullptr; above = above->m_source.get())
        if (above == model)
            return true;
    return false;
}

String Model::fullName() const {
    String result = getPath().str();
    for (char& c : result)
        if (c == Path::Separator)
            c = ':';
    return result;
}

String Model::fullInheritancePath() const {
    String result = getName().str();
    for (const Model* above = m_source.get(); above != nullptr; above = above->m_source.get())
        result += " -> " + above->getName().str();
    return result;
}

void Model::buildNavigationTree(Json::Value& json) const {
    Component::buildNavigationTree(json);
    json["source"] = m_source ? std::string(m_source->fullName()) : std::string();
    json["sourcePath"] = static_cast<const std::string&>(m_sourcePath);
}

void Model::tagShutdown() {
    if (const Callback cleanup = std::exchange(m_shutdownCleanup, Callback()))
        cleanup();
}

ModelCleanup* ModelCleanup::s_instance = nullptr;

ModelCleanup::ModelCleanup() : Singleton(1) {}

void ModelCleanup::ensure() {
    if (s_instance == nullptr)
        s_instance = new ModelCleanup;
}

std::string ModelCleanup::getClassName() const {
    return __PRETTY_FUNCTION__;
}

void ModelCleanup::shutdown() {
    s_instance = nullptr;
    const std::lock_guard lock(getTypeSystemMutex());
    Namespace* tree = s_root.load(std::memory_order_relaxed);
    if (tree == nullptr)
        return;
    Object::setEnableRebind(false);
    tree->traverse([](Object* object) {
        if (auto* model = dynamic_cast<Model*>(object))
            model->tagShutdown();
    });
    // The core models describe each other in a circle.
    for (std::atomic<Model*>& slot : s_core)
        if (Model* model = slot.load(std::memory_order_relaxed))
            model->setModel(nullptr);
    // At the end of a process that did not shut the library down, the table may have gone first.
    if (!SlotTableOwner::s_destroyed) {
        for (auto& entry : Model::getReverseBuiltinModelTable())
            entry.value->store(nullptr, std::memory_order_release);
        Model::getReverseBuiltinModelTable().clear();
    }
    s_root.store(nullptr, std::memory_order_release);
    forgetModelFiles();
    tree->unreference();
    Object::setEnableRebind(true);
}

} // namespace zel

zel::TypeSystemMutex& zelData::detail::getTypeSystemMutex() {
    return zel::getTypeSystemMutex();
}
