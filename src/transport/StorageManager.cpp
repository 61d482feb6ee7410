#include "ArchiveHeader.h"

#include <zel/DynamicLibrary.h>
#include <zel/HashSet.h>
#include <zel/Log.h>
#include <zel/Model.h>
#include <zel/ServicePointer.h>
#include <zel/Verify.h>
#include <zelIO/Environment.h>
#include <zelIO/FileSystem.h>
#include <zelStream/InputArchive.h>
#include <zelStream/StorageAgent.h>
#include <zelStream/StorageManager.h>

#include <pystring/pystring.h>

#include <algorithm>
#include <climits>
#include <mutex>
#include <string_view>
#include <utility>

namespace zelStream {

using zel::String;

namespace {

constinit zel::ServicePointer<StorageManager> s_storageManager;

constexpr char Deprecated[] = "deprecated";
constexpr char OldDeprecated[] = "depricated";

/// Of a file without "lib" and ".so".
constexpr size_t MaxLibraryName = NAME_MAX - 6;

/// An agent that was added, by a static object or a program.
struct Registered {
    String name;
    const StorageAgent* agent;
    StorageManager::ModificationCallback fits;
};

/// All of them, in the order in which they came. Made by the first static registration, and never destroyed:
/// libraries leave it as late as at process exit, and a manager that is made after a shutdown begins with it.
zel::Vector<Registered>& registrations() {
    static auto& list = *new zel::Vector<Registered>;
    return list;
}

/// Classes that were stored before they moved into a namespace: the full name of each bare one.
zel::HashTable<String, String>& missingNamespaces() {
    static auto& s_missingNamespaceLookupTable = *new zel::HashTable<String, String>;
    return s_missingNamespaceLookupTable;
}

bool isIdentifier(std::string_view text) {
    const auto isLetter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; };
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    return !text.empty() && !isDigit(text[0]) &&
           std::all_of(text.begin(), text.end(), [&](char c) { return isLetter(c) || isDigit(c); });
}

/// The namespace that a class's library bears the name of: the first part of its name.
/// @return empty for a bare name, for one that no class can have, and where no file can have it
String libraryNamespace(const String& name) {
    const std::string_view parts = std::string_view(name).substr(0, name.find('<'));
    const size_t first = parts.find("::");
    if (first == std::string_view::npos || first > MaxLibraryName)
        return {};
    for (size_t begin = 0; begin <= parts.size();) {
        const size_t end = std::min(parts.find("::", begin), parts.size());
        if (!isIdentifier(parts.substr(begin, end - begin)))
            return {};
        begin = end + 2;
    }
    return String(parts.substr(0, first));
}

/// Whether the classes of the namespace are in this library, which is loaded.
bool isOwnNamespace(const String& name) {
    constexpr const char* Own[] = {"zel", "zelCore", "zelData", "zelIO", "zelNet", "zelStream"};
    return std::find(std::begin(Own), std::end(Own), name) != std::end(Own);
}

} // namespace

// Which agent fits

StorageManager::ModificationCallback::ModificationCallback(const zel::Vector<String>& modifications)
    : m_modifications(modifications) {}

bool StorageManager::ModificationCallback::operator()(const InputArchive* archive) const {
    return archive == nullptr ||
           std::all_of(m_modifications.begin(), m_modifications.end(), [archive](const String& hash) {
               return archive->hasModification(hash);
           });
}

void StorageManager::AgentStorage::add(const StorageAgent* agent, const ModificationCallback& fits) {
    m_entries.push_back({agent, fits});
}

void StorageManager::AgentStorage::remove(const StorageAgent* agent) {
    m_entries.erase(std::remove_if(m_entries.begin(),
                                   m_entries.end(),
                                   [agent](const Entry& entry) { return entry.agent == agent; }),
                    m_entries.end());
}

const StorageAgent* StorageManager::AgentStorage::getStorageAgent(const InputArchive* archive) const {
    for (const Entry& entry : m_entries)
        if (entry.fits(archive))
            return entry.agent;
    return nullptr;
}

// The manager

struct StorageManager::Impl {
    zel::HashTable<String, AgentStorage> agents;
    zel::HashSet<String> tried;                    ///< namespaces whose libraries were looked for
    zelIO::FilePathContainer::StringList searched; ///< directories in which they were
    bool isLoadingEnabled = true;

    void add(const Registered& registered) {
        auto position = agents.find(registered.name);
        if (position == agents.end())
            position = agents.insert(registered.name, AgentStorage());
        position->value.add(registered.agent, registered.fits);
    }

    /// Brings the agents of one name up to date.
    void refill(const String& name) {
        agents.erase(name);
        for (const Registered& registered : registrations())
            if (registered.name == name)
                add(registered);
    }

    void remove(const StorageAgent* agent) {
        zel::Vector<String> empty;
        for (auto& entry : agents) {
            entry.value.remove(agent);
            if (entry.value.empty())
                empty.push_back(entry.key);
        }
        for (const String& name : empty)
            agents.erase(name);
    }

    /// @param agent  gets what fits, null too
    /// @return whether there are agents of the name
    bool tryFindStorage(const String& name, const InputArchive* archive, const StorageAgent*& agent) const {
        const auto position = agents.find(name);
        if (position == agents.end())
            return false;
        agent = position->value.getStorageAgent(archive);
        return true;
    }

    /// Also of a class that is only there to read old archives.
    bool tryFindAny(const String& name, const InputArchive* archive, const StorageAgent*& agent) const {
        return tryFindStorage(name, archive, agent) ||
               tryFindStorage(name + "::" + Deprecated, archive, agent);
    }

    /// Whether the library of the namespace is looked for now: once, until the search path changes.
    bool isToBeTried(const String& space, const zelIO::FilePathContainer& directories) {
        if (!isLoadingEnabled || space.empty() || isOwnNamespace(space))
            return false;
        if (searched != directories.getFilePathList()) {
            searched = directories.getFilePathList();
            tried.clear();
        }
        if (tried.contains(space))
            return false;
        tried.insert(space);
        return true;
    }
};

StorageManager::StorageManager() : m_impl(std::make_unique<Impl>()) {
    for (const Registered& registered : registrations())
        m_impl->add(registered);
}

StorageManager::~StorageManager() {
    s_storageManager.forget(this);
}

StorageManager* StorageManager::instance() {
    return s_storageManager.get([] { return new StorageManager; });
}

void StorageManager::cleanup() {
    s_storageManager.forget(this);
    m_impl->agents.clear();
    m_impl->tried.clear();
}

void StorageManager::shutdown() {
    cleanup();
}

std::string StorageManager::getClassName() const {
    return __PRETTY_FUNCTION__;
}

void StorageManager::add(const String& name, const StorageAgent* agent, const ModificationCallback& fits) {
    zelVerify(agent != nullptr);
    registrations().push_back({name, agent, fits});
    if (StorageManager* const manager = s_storageManager.find())
        manager->m_impl->add(registrations().back());
}

void StorageManager::add(const StorageAgent* agent) {
    zelVerify(agent != nullptr);
    add(agent->getClassName(), agent);
}

void StorageManager::add(const String& name, const StorageAgent* agent) {
    add(name, agent, ModificationCallback());
}

void StorageManager::add(const StorageAgent* agent,
                         const zel::Vector<String>& modifications,
                         const StorageAgent* oldAgent) {
    zelVerify(agent != nullptr);
    zelVerify(oldAgent != nullptr);
    add(agent->getClassName(), agent, ModificationCallback(modifications));
    add(agent->getClassName(), oldAgent);
}

void StorageManager::remove(const StorageAgent* agent) {
    zel::Vector<Registered>& list = registrations();
    list.erase(std::remove_if(list.begin(),
                              list.end(),
                              [agent](const Registered& registered) { return registered.agent == agent; }),
               list.end());
    if (StorageManager* const manager = s_storageManager.find())
        manager->m_impl->remove(agent);
}

void StorageManager::remove(const String& name, const StorageAgent* agent) {
    zel::Vector<Registered>& list = registrations();
    Registered* const known = std::find_if(list.begin(), list.end(), [&](const Registered& registered) {
        return registered.agent == agent && registered.name == name;
    });
    if (known == list.end())
        return;
    list.erase(known);
    if (StorageManager* const manager = s_storageManager.find())
        manager->m_impl->refill(name);
}

void StorageManager::addMissingNamespace(const String& className, const String& fullName) {
    zelVerify(className.find("::") == String::npos);
    zelVerify(fullName.find("::") != String::npos);
    missingNamespaces().insert(className, fullName);
}

const StorageAgent* StorageManager::find(const String& storedName, const InputArchive* archive) {
    const bool hasFinalNames = archive != nullptr && archive->hasModification(FinalNames);
    const String name =
        hasFinalNames ? storedName : String(pystring::replace(storedName, OldDeprecated, Deprecated));
    const StorageAgent* agent = nullptr;
    if (m_impl->tryFindAny(name, archive, agent))
        return agent;

    if (name.find("::") == String::npos) {
        const auto position = missingNamespaces().find(name);
        return position == missingNamespaces().end() ? nullptr : find(position->value, archive);
    }

    const zelIO::FilePathContainer& directories =
        zelIO::Environment::instance()->getFilePath(zelIO::Environment::PluginPath);
    const String space = libraryNamespace(name);
    // Threads with archives of their own do not know what these name, and may all come here.
    const std::lock_guard lock(zel::getTypeSystemMutex());
    if (m_impl->tryFindAny(name, archive, agent)) // in a library that another one has loaded meanwhile
        return agent;
    if (!m_impl->isToBeTried(space, directories))
        return nullptr;
    const String library = space + zelIO::FileSystem::DLL_SUFFIX;
    ZEL_LOG_INFO("Failed to find class '"
                 << name << "' from storage agent. Will try to find and load library '" << library
                 << "' to initialize it.");
    String file = directories.find("lib" + library);
    if (file.empty())
        file = directories.find(library);
    // Found by its full path, so that no other directory is looked at. The manager of services owns it.
    if (file.empty() || zel::DynamicLibrary::loadLibrary(file, zelIO::FilePathContainer()) == nullptr)
        return nullptr;
    if (!m_impl->tryFindAny(name, archive, agent))
        ZEL_LOG_WARNING("Failed to find class storage '"
                        << name << "' even though library '" << library
                        << "' was found. Could not initialize class storage.");
    return agent;
}

void StorageManager::setLibraryLoadingEnabled(bool enable) noexcept {
    m_impl->isLoadingEnabled = enable;
}

bool StorageManager::isLibraryLoadingEnabled() const noexcept {
    return m_impl->isLoadingEnabled;
}

// Registrations

StorageRegistration::StorageRegistration(const StorageAgent& agent)
    : StorageRegistration(agent.getClassName(), agent) {}

StorageRegistration::StorageRegistration(const String& name, const StorageAgent& agent)
    : m_name(name), m_agents{&agent} {
    StorageManager::add(name, &agent);
}

StorageRegistration::StorageRegistration(const StorageAgent& agent,
                                         const zel::Vector<String>& modifications,
                                         const StorageAgent& oldAgent)
    : m_name(agent.getClassName()), m_agents{&agent, &oldAgent} {
    StorageManager::add(&agent, modifications, &oldAgent);
}

StorageRegistration::~StorageRegistration() {
    for (const StorageAgent* agent : m_agents)
        StorageManager::remove(m_name, agent);
}

} // namespace zelStream
