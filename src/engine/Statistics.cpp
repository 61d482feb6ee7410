#include "StatisticsText.h"

#include <zel/Log.h>
#include <zel/Statistics.h>
#include <zelData/Type.h>

#include <sstream>
#include <type_traits>

namespace zel {

constinit ServicePointer<Statistics> Statistics::s_instance;

namespace {

const char* shown(const char* name) {
    return name == nullptr ? "<Implicit node>" : name;
}

bool isAtOrAbove(const Statistics::ProviderHandle* node, const Statistics::ProviderHandle* other) {
    for (; other != nullptr; other = other->getParent())
        if (other == node)
            return true;
    return false;
}

// NOLINTNEXTLINE(misc-no-recursion)
void visitBranch(const Statistics::ProviderHandle& node,
                 uint32 depth,
                 const std::function<void(const Statistics::ProviderHandle&, uint32)>& visitor) {
    visitor(node, depth);
    for (const ref_ptr<Statistics::ProviderHandle>& child : node.getChildren())
        visitBranch(*child, depth + 1, visitor);
}

} // namespace

Statistics::Statistics() : Singleton(10000) {}

Statistics::~Statistics() {
    if (m_root != nullptr)
        m_root->m_parent = nullptr;
}

Statistics* Statistics::instance() {
    return s_instance.get([] { return new Statistics; });
}

bool Statistics::hasInstance() noexcept {
    return s_instance.find() != nullptr;
}

void Statistics::shutdown() {
    s_instance.forget(this);
}

std::string Statistics::getClassName() const {
    return __PRETTY_FUNCTION__;
}

TypeSystemMutex& Statistics::getTypeSystemMutex() {
    return zelData::detail::getTypeSystemMutex();
}

// The tree

Statistics::ProviderHandle* Statistics::findProvider(void* provider) const {
    const auto position = m_providers.find(provider);
    return position == m_providers.end() ? nullptr : position->value.get();
}

Statistics::ProviderHandle* Statistics::createRootNode() {
    if (ProviderHandle* root = findProvider(nullptr))
        return root;
    m_root = new ProviderHandle(nullptr, "Root");
    m_providers.insert(nullptr, m_root);
    return m_root;
}

Statistics::ProviderHandle* Statistics::getOrCreateParentNode(void* parent) {
    if (ProviderHandle* known = findProvider(parent))
        return known;
    if (parent == nullptr)
        return createRootNode();
    ProviderHandle* root = findProvider(nullptr);
    if (root == nullptr) {
        ZEL_LOG_WARNING("Internal error: Tried to get the ProviderHandle root node, but it didn't exist. \n"
                        << "Cached root node is " << m_root << " root.");
        return nullptr;
    }
    const ref_ptr<ProviderHandle> implicit(new ProviderHandle(parent));
    m_providers.insert(parent, implicit);
    root->addChild(implicit.get());
    return implicit.get();
}

void Statistics::createNameBinding(ProviderHandle* handle) {
    if (handle == nullptr || handle->isImplicit()) {
        ZEL_LOG_WARNING("Internal error: Got nullptr when creating name binding.");
        return;
    }
    auto position = m_names.find(handle->getName());
    if (position == m_names.end()) {
        NameBinding binding{copyString(handle->getName()), {}};
        const char* key = binding.name.get();
        position = m_names.insert(key, std::move(binding));
    }
    position->value.handles.push_back(handle);
}

void Statistics::removeNameBinding(ProviderHandle* handle) {
    if (handle == nullptr || handle->isImplicit()) {
        ZEL_LOG_WARNING("Internal error: Got nullptr to provider when removing name binding.");
        return;
    }
    const auto position = m_names.find(handle->getName());
    auto* handles = position == m_names.end() ? nullptr : &position->value.handles;
    const auto entry = handles == nullptr ? nullptr : handles->find(handle);
    if (handles == nullptr || entry == handles->end()) {
        ZEL_LOG_WARNING("Internal error: Tried to remove a name binding that doesn't exist.");
        return;
    }
    handles->erase(entry);
    if (handles->empty()) {
        // The key is the binding's own text, which must outlive the look-up.
        const std::unique_ptr<char[]> name = std::move(position->value.name);
        m_names.erase(name.get());
    }
}

void Statistics::decayBranch(ProviderHandle* node) {
    while (node != nullptr && node->isImplicit() && node->getChildren().empty()) {
        const ref_ptr<ProviderHandle> keep(node);
        ProviderHandle* parent = node->getParent();
        if (findProvider(node->getProvider()) != node)
            ZEL_LOG_WARNING(
                "Internal error: Found an implicit node that hasn't been registered in the providers table.");
        else
            m_providers.erase(node->getProvider());
        if (parent != nullptr)
            parent->removeChild(node);
        node = parent;
    }
}

template <typename Handle>
Handle* Statistics::enter(void* provider, const char* name, void* parent) {
    createRootNode();
    ProviderHandle* known = findProvider(provider);
    if (known != nullptr && !known->isImplicit()) {
        ZEL_LOG_WARNING("Trying to register provider "
                        << provider << " multiple times. Doing nothing. Old name: '" << known->getName()
                        << "', new name: '" << name << "'.");
        return nullptr;
    }
    ProviderHandle* parentNode = parent == provider ? known : getOrCreateParentNode(parent);
    if (parent == provider || (known != nullptr && isAtOrAbove(known, parentNode))) {
        ZEL_LOG_WARNING("Trying to register provider '" << name << "' below itself. Doing nothing.");
        return nullptr;
    }
    if (parentNode == nullptr)
        return nullptr;
    // A task begins with timers of its own.
    ref_ptr<Handle> handle(std::is_same_v<Handle, ProviderHandle> ? dynamic_cast<Handle*>(known) : nullptr);
    if (handle) {
        handle->setName(name);
        parentNode->adoptChild(handle.get());
    } else {
        handle = new Handle(provider, name);
        parentNode->addChild(handle.get());
        if (known != nullptr) {
            const ref_ptr<ProviderHandle> implicit(known);
            handle->takeChildren(known);
            known->getParent()->removeChild(known);
        }
        m_providers.insert(provider, handle.get());
    }
    createNameBinding(handle.get());
    return handle.get();
}

Statistics::ProviderHandle* Statistics::registerDataProvider(void* provider, const char* name, void* parent) {
    if (provider == nullptr) {
        ZEL_LOG_WARNING(
            "Statistics: Trying to register a nullptr provider. This is not allowed. Doing nothing.");
        return nullptr;
    }
    if (name == nullptr) {
        ZEL_LOG_WARNING("Statistics: Trying to register a provider with a nullptr name. This is not allowed. "
                        "Doing nothing.");
        return nullptr;
    }
    const std::lock_guard lock(m_mutex);
    return enter<ProviderHandle>(provider, name, parent);
}

TaskTimingReportHandle*
Statistics::registerTaskTimerProvider(void* provider, const char* name, void* parent) {
    if (provider == nullptr) {
        ZEL_LOG_WARNING("Trying to register a nullptr provider. This is not allowed. Doing nothing.");
        return nullptr;
    }
    if (name == nullptr) {
        ZEL_LOG_WARNING(
            "Trying to register a provider with a nullptr name. This is not allowed. Doing nothing.");
        return nullptr;
    }
    const std::lock_guard typeLock(getTypeSystemMutex());
    const std::lock_guard lock(m_mutex);
    return enter<TaskTimingReportHandle>(provider, name, parent);
}

void Statistics::unregisterDataProvider(void* provider) {
    if (provider == nullptr) {
        ZEL_LOG_WARNING("Asked to unregister the nullptr provider. Doing nothing.");
        return;
    }
    const std::lock_guard lock(m_mutex);
    const ref_ptr<ProviderHandle> handle(findProvider(provider));
    if (!handle || handle->isImplicit())
        return;
    removeNameBinding(handle.get());
    ProviderHandle* parent = handle->getParent();
    if (handle->getChildren().empty()) {
        m_providers.erase(provider);
        parent->removeChild(handle.get());
    } else {
        // With its data, which may still be in the hands of whoever registered it.
        handle->setName(nullptr);
        findProvider(nullptr)->adoptChild(handle.get());
    }
    decayBranch(parent);
}

void Statistics::setContext(void* provider, void* newParent) {
    if (provider == nullptr) {
        ZEL_LOG_WARNING(
            "Tried to change the context of a nullptr provider, and nullptr providers are not supported.");
        return;
    }
    const std::lock_guard lock(m_mutex);
    const ref_ptr<ProviderHandle> handle(findProvider(provider));
    if (!handle || handle->isImplicit()) {
        ZEL_LOG_WARNING("Tried to change the context of a provider that hasn't been registered yet.");
        return;
    }
    if (isAtOrAbove(handle.get(), findProvider(newParent))) {
        ZEL_LOG_WARNING("Tried to move provider '" << handle->getName() << "' below itself.");
        return;
    }
    ProviderHandle* oldParent = handle->getParent();
    if (oldParent == nullptr || !oldParent->removeChild(handle.get()))
        ZEL_LOG_WARNING("Internal error: Failed to disconnect a moved ProviderHandle from its parent.");
    getOrCreateParentNode(newParent)->addChild(handle.get());
    decayBranch(oldParent);
}

// Reading

StatisticsData* Statistics::findData(const char* providerName, const char* dataName, size_t index) const {
    const auto position = m_names.find(providerName);
    return position == m_names.end() ? nullptr : position->value.handles[index]->findData(dataName);
}

// The reference is taken with the mutex held: the provider may go at once after that.

ref_ptr<StatisticsData>
Statistics::getData(const char* providerName, const char* dataName, size_t index) const {
    const std::lock_guard lock(m_mutex);
    return ref_ptr<AbstractData>(findData(providerName, dataName, index));
}

ref_ptr<StatisticsData> Statistics::getData(void* provider, const Path& path) const {
    if (provider == nullptr) {
        ZEL_LOG_WARNING("Statistics asked to get data from a nullptr instance. This is not supported.");
        return nullptr;
    }
    const std::lock_guard lock(m_mutex);
    const ProviderHandle* node = findProvider(provider);
    if (node == nullptr) {
        ZEL_LOG_WARNING("Statistics asked to get data from an instance that hasn't been registered yet.");
        return nullptr;
    }
    const ProviderHandle* const start = node;
    Path rest = path;
    for (; rest.hasTail(); rest = rest.tail()) {
        const Name part = rest.root();
        const ProviderHandle* next = nullptr;
        for (const ref_ptr<ProviderHandle>& child : node->getChildren())
            if (!child->isImplicit() && part == Name(child->getName())) {
                next = child.get();
                break;
            }
        if (next == nullptr) {
            ZEL_LOG_WARNING("While searching for statistics provider '"
                            << path.c_str() << "' from provider " << shown(start->getName()) << " ("
                            << provider << "). Did not find node '" << part << "'.");
            return nullptr;
        }
        node = next;
    }
    return ref_ptr<AbstractData>(node->findData(rest.c_str()));
}

Statistics::TimingInfo
Statistics::getTimingInfo(const String& provider, const String& data, size_t index) const {
    TimingInfo info;
    const ref_ptr<AbstractData> found(getData(provider, data, index));
    if (found && !detail::readNumbers(*found, info))
        ZEL_LOG_WARNING("Statistics asked to get timing info for '" << provider << ":" << data
                                                                    << "' with an unknown type.");
    return info;
}

String Statistics::getTimingString(const String& provider, const String& data, size_t index) const {
    const ref_ptr<AbstractData> found(getData(provider, data, index));
    if (!found)
        return {};
    return detail::valueText(*found) + " (accumulated: " + detail::accumulatedText(*found) + ")";
}

void Statistics::clear() {
    const std::lock_guard lock(m_mutex);
    if (ProviderHandle* root = findProvider(nullptr))
        root->clear(true, true);
}

void Statistics::clearCurrent() {
    const std::lock_guard lock(m_mutex);
    if (ProviderHandle* root = findProvider(nullptr))
        root->clear(false, true);
}

void Statistics::print(std::ostream& stream, bool includeEmpty) {
    // The texts of the numbers are made by the type system, whose mutex goes first.
    const std::lock_guard typeLock(getTypeSystemMutex());
    const std::lock_guard lock(m_mutex);
    ProviderHandle* root = findProvider(nullptr);
    if (root == nullptr) {
        stream << "No statistics.";
        return;
    }
    root->updateEmptyFlags();
    root->print(stream, includeEmpty, 0);
}

void Statistics::visit(const std::function<void(const ProviderHandle&, uint32)>& visitor) const {
    const std::lock_guard lock(m_mutex);
    if (const ProviderHandle* root = findProvider(nullptr))
        for (const ref_ptr<ProviderHandle>& child : root->getChildren())
            visitBranch(*child, 0, visitor);
}

String Statistics::printed(bool includeEmpty) {
    std::ostringstream stream;
    print(stream, includeEmpty);
    return stream.str();
}

} // namespace zel
