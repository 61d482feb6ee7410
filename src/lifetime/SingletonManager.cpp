#include "ShutdownStep.h"

#include <zel/DynamicLibrary.h>
#include <zel/ServicePointer.h>
#include <zel/Singleton.h>
#include <zel/SingletonManager.h>
#include <zel/Thread.h>

#include <algorithm>
#include <iostream>
#include <utility>

namespace zel {

namespace {

/// How often the lower list is visited before it is given up: a service may create another one each time.
constexpr int MaxLowerPasses = 200;

// Outlives the manager: code that runs later at process exit asks for it.
constinit bool s_destroyed = false;

bool prioGreater(const Singleton* a, const Singleton* b) {
    return a->getPriority() < b->getPriority();
}

void printList(const Vector<Singleton*>& list) {
    for (const Singleton* singleton : list)
        std::cerr << singleton->getPriority() << " : '" << singleton->getClassName() << "'" << std::endl;
}

} // namespace

detail::ServicesMutex& detail::getServicesMutex() {
    // Never destroyed: static destructors use services.
    static auto& mutex = *new ServicesMutex;
    return mutex;
}

SingletonManager::SingletonManager() = default;

SingletonManager::~SingletonManager() {
    shutdown();
    s_destroyed = true;
}

SingletonManager* SingletonManager::instance() {
    static const ref_ptr<SingletonManager> s_manager(new SingletonManager);
    return s_destroyed ? nullptr : s_manager.get();
}

void SingletonManager::registerSingleton(Singleton* singleton) {
    const std::lock_guard lock(m_mutex);
    m_modified = true;
    Vector<Singleton*>& list = m_shutdown || singleton->getPriority() < UpperPriority ? m_lower : m_upper;
    list.push_back(singleton);
    std::sort(list.begin(), list.end(), prioGreater);
}

bool SingletonManager::unregisterSingleton(Singleton* singleton) {
    if (m_upper.contains(singleton)) {
        delete singleton;
        m_upper.findAndErase(singleton);
        m_modified = true;
        return true;
    }
    m_lower.findAndErase(singleton);
    return false;
}

void SingletonManager::registerDynamicLibrary(DynamicLibrary* library) {
    m_libraries.insert(library);
}

void SingletonManager::unregisterDynamicLibrary(DynamicLibrary* library) {
    m_libraries.erase(library);
}

/// One pass over the last entry. If the lists changed under its shutdown the entry is looked at once more,
/// since another one may be the last by then.
void SingletonManager::destroyLast(Vector<Singleton*>& list) {
    Singleton* const last = list.back();
    if (last != nullptr)
        detail::attemptShutdown(last->getClassName().c_str(), [last] { last->_shutdown(); });
    // The lower list changes without a word where a service takes itself off.
    if (std::exchange(m_modified, false) || list.empty() || list.back() != last)
        return;
    list.pop_back();
    delete last;
}

void SingletonManager::shutdown() {
    if (m_shutdown || forcedShutdown())
        return;
    m_shutdown = true;
    m_modified = false;
    while (!m_upper.empty())
        destroyLast(m_upper);
    for (int pass = 0; pass < MaxLowerPasses && !m_lower.empty(); ++pass)
        destroyLast(m_lower);
    m_lower.resize(0);

    // Last, because the code of services may live in the libraries. Unloading runs foreign code, which may
    // come back here: it finds the set empty.
    HashSet<ref_ptr<DynamicLibrary>> libraries;
    libraries.swap(m_libraries);
}

void SingletonManager::print() const {
    printList(m_upper);
    printList(m_lower);
}

Singleton::Singleton(int32 priority) : m_priority(priority) {
    if (SingletonManager* manager = SingletonManager::instance())
        manager->registerSingleton(this);
}

void Singleton::_shutdown() {
    // Set ahead of it: shutdown() may call this again, throw, or end the object.
    if (!std::exchange(m_isShutdown, true))
        shutdown();
}

} // namespace zel
