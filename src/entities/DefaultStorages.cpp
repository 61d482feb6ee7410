#include "DefaultStorages.h"

#include <zel/Thread.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityStorage.h>

#include <mutex>
#include <utility>

namespace zelData {

namespace {

constexpr zel::int32 Priority = 10050;

// Set by the program ahead of the threads that look at it; nothing is published through it.
constinit std::atomic<bool> s_threadSafe{false};

/// The model "Referenced", if it has been loaded: a model that nobody has loaded is no one's base.
const zel::Model* findReferencedModel() {
    for (const EntityModel* model : EntityModel::getRootModel()->getChildren())
        if (model->getPath().str() == "Referenced")
            return model;
    return nullptr;
}

} // namespace

DefaultStorageSingleton* DefaultStorageSingleton::s_instance = nullptr;

DefaultStorageSingleton::DefaultStorageSingleton() : Singleton(Priority) {}

DefaultStorageSingleton::~DefaultStorageSingleton() {
    if (s_instance == this)
        s_instance = nullptr;
}

std::string DefaultStorageSingleton::getClassName() const {
    return __PRETTY_FUNCTION__;
}

EntityStorage* DefaultStorageSingleton::create(EntityModel* model) {
    const std::lock_guard lock(zel::getTypeSystemMutex());
    if (s_instance == nullptr)
        s_instance = new DefaultStorageSingleton;
    zel::ref_ptr<EntityStorage> storage(new EntityStorage(model));
    s_instance->m_retainedStorages.push_back(storage);
    return storage.get();
}

EntityStorage* DefaultStorageSingleton::get(EntityModel* model) {
    if (s_threadSafe.load(std::memory_order_relaxed)) {
        const std::lock_guard lock(zel::getTypeSystemMutex());
        const zel::Model* referenced = findReferencedModel();
        if (referenced != nullptr && model->is(referenced))
            return create(model);
    }
    if (zel::Thread* thread = zel::Thread::getCurrentThread())
        return thread->getDefaultStorage(model);
    const std::lock_guard lock(zel::getTypeSystemMutex());
    if (!model->m_defaultStorage) {
        model->m_defaultStorage = create(model);
        s_instance->m_models.push_back(model);
    }
    return model->m_defaultStorage.get();
}

void DefaultStorageSingleton::shutdown() {
    s_instance = nullptr;
    if (zel::Thread* thread = zel::Thread::getCurrentThread())
        thread->freeDefaultStorages();
    for (const zel::ref_ptr<EntityModel>& model : m_models)
        model->m_defaultStorage = nullptr;
    m_models = {};
    // A storage may go only after those that its destructor's callbacks look at.
    const auto storages = std::exchange(m_retainedStorages, {});
}

void EntityModel::setThreadSafe(bool threadSafe) noexcept {
    s_threadSafe.store(threadSafe, std::memory_order_relaxed);
}

bool EntityModel::isThreadSafe() noexcept {
    return s_threadSafe.load(std::memory_order_relaxed);
}

} // namespace zelData

namespace zel {

zelData::EntityStorage* Thread::getDefaultStorage(zelData::EntityModel* model) {
    const auto position = m_defaultStorages.find(model);
    if (position != m_defaultStorages.end())
        return position->value.get();
    zelData::EntityStorage* storage = zelData::DefaultStorageSingleton::create(model);
    m_defaultStorages.insert(model, storage);
    return storage;
}

void Thread::freeDefaultStorages() {
    m_defaultStorages = {};
}

void setEntityCreationThreadSafe(bool threadSafe) {
    zelData::EntityModel::setThreadSafe(threadSafe);
}

bool getEntityCreationThreadSafe() {
    return zelData::EntityModel::isThreadSafe();
}

} // namespace zel
