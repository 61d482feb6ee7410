#include <zelStream/StorageAgent.h>
#include <zelStream/StorageManager.h>

namespace zelStream {

StorageAgent::StorageAgent(const zel::String& className) : m_className(className) {}

StorageAgent::~StorageAgent() = default;

Serializable* StorageAgent::create(InputArchive& /*archive*/) const {
    return create();
}

const StorageAgent* StorageAgent::lookup(const zel::String& name, const InputArchive* archive) {
    return StorageManager::instance()->find(name, archive);
}

zel::String StorageAgent::stripClassName(const zel::String& prettyName) {
    zel::String name = prettyName.substr(0, prettyName.rfind("::"));
    // Without a blank, npos + 1 is the first character.
    name.erase(0, name.rfind(' ') + 1);
    // Where the operation returns a reference or a pointer, clang writes its mark at the name.
    name.erase(0, name.find_first_not_of("&*"));
    return name;
}

} // namespace zelStream
