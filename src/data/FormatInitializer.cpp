#include "BuiltinFormats.h"
#include "TypeRegistry.h"

#include <zel/Vector.h>
#include <zel/Verify.h>
#include <zelData/FormatInitializer.h>

#include <mutex>

namespace zelData {

namespace {

using InitializerTable = zel::HashTable<const char*, FormatInitializer*>;

/// Made at first use and never destroyed, so that the order of static objects does not matter.
InitializerTable& initializerTable() {
    static InitializerTable& table = *new InitializerTable;
    return table;
}

// Guarded by the type-system mutex.
constinit bool s_isCreatingFormats = false;
constinit bool s_haveCreatedFormats = false;

} // namespace

FormatInitializer::FormatInitializer(const char* name, CreateFunction createFunction)
    : m_name(name), m_createFunction(createFunction) {
    const std::lock_guard lock(detail::getTypeSystemMutex());
    zelVerifyN(find(name) == nullptr, "Formats for the type '%s' are already registered", name);
    initializerTable().insert(name, this);
    if (!s_haveCreatedFormats)
        return;
    try {
        init();
    } catch (...) {
        initializerTable().erase(m_name);
        throw;
    }
}

FormatInitializer::~FormatInitializer() {
    const std::lock_guard lock(detail::getTypeSystemMutex());
    initializerTable().erase(m_name);
}

void FormatInitializer::init() {
    const std::lock_guard lock(detail::getTypeSystemMutex());
    if (m_initialized)
        return;
    m_initialized = true;
    try {
        m_createFunction();
    } catch (...) {
        m_initialized = false;
        throw;
    }
}

FormatInitializer* FormatInitializer::find(const char* name) {
    const std::lock_guard lock(detail::getTypeSystemMutex());
    const auto position = initializerTable().find(name);
    return position == initializerTable().end() ? nullptr : position->value;
}

void FormatInitializer::createFormats() {
    const std::lock_guard lock(detail::getTypeSystemMutex());
    if (s_isCreatingFormats)
        return;
    registerBuiltinFormats();
    struct Creating {
        Creating() { s_isCreatingFormats = true; }
        Creating(const Creating&) = delete;
        Creating& operator=(const Creating&) = delete;
        ~Creating() { s_isCreatingFormats = false; }
    } const creating;
    zel::Vector<FormatInitializer*> initializers;
    for (const auto& entry : initializerTable())
        initializers.push_back(entry.value);
    for (FormatInitializer* initializer : initializers)
        initializer->init();
    s_haveCreatedFormats = true;
}

bool FormatInitializer::isCreatingFormats() {
    const std::lock_guard lock(detail::getTypeSystemMutex());
    return s_isCreatingFormats;
}

void FormatInitializer::removeFormats() {
    const std::lock_guard lock(detail::getTypeSystemMutex());
    for (const auto& pair : TypeRegistry::instance().types)
        for (zel::size_t i = 0; i < pair.value->getNumObjects(); ++i)
            if (auto* format = dynamic_cast<Format*>(pair.value->getObject(i)))
                format->cleanup();
    for (const auto& entry : initializerTable())
        entry.value->m_initialized = false;
    s_haveCreatedFormats = false;
    Format::forceClearTypeCallerTable();
}

} // namespace zelData
