#include "TypeRegistry.h"

#include <zelData/FormatInitializer.h>
#include <zelData/TypeManager.h>

#include <mutex>

namespace zelData {

TypeManager* TypeManager::s_instance = nullptr;

TypeManager::TypeManager() : Singleton(2) {}

TypeManager::~TypeManager() = default;

TypeManager* TypeManager::instance() {
    const std::lock_guard lock(detail::getTypeSystemMutex());
    initialize();
    return s_instance;
}

void TypeManager::initialize() {
    const std::lock_guard lock(detail::getTypeSystemMutex());
    if (s_instance != nullptr)
        return;
    s_instance = new TypeManager;
    FormatInitializer::createFormats();
}

bool TypeManager::isInitialized() {
    const std::lock_guard lock(detail::getTypeSystemMutex());
    return s_instance != nullptr;
}

void TypeManager::shutdown() {
    const std::lock_guard lock(detail::getTypeSystemMutex());
    FormatInitializer::removeFormats();
    TypeRegistry::instance().clear();
    s_instance = nullptr;
}

std::string TypeManager::getClassName() const {
    return __PRETTY_FUNCTION__;
}

} // namespace zelData
