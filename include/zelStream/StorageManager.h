#pragma once

#include <zel/Export.h>
#include <zel/Singleton.h>
#include <zel/String.h>
#include <zel/Vector.h>

#include <memory>
#include <string>

namespace zelStream {

class InputArchive;
class StorageAgent;

/// Knows the storage agents of all classes by name, and finds the one that fits a name out of an archive,
/// also an old one.
///
/// Agents register when their library is loaded, and stay known through a shutdown of the library: the next
/// instance() has them again.
/// @threads registration at start-up on one thread; from then on any thread may search; while a search loads
/// a library, which registers its agents, no other thread may
class ZEL_CORE_API StorageManager : public zel::Singleton {
public:
    /// Whether an archive has all of a list of modifications.
    class ZEL_CORE_API ModificationCallback {
    public:
        ModificationCallback() = default;
        explicit ModificationCallback(const zel::Vector<zel::String>& modifications);
        /// Without an archive, and for an empty list, true.
        [[nodiscard]] bool operator()(const InputArchive* archive) const;

    private:
        zel::Vector<zel::String> m_modifications;
    };

    /// The agents of one name, in the order of registration.
    class ZEL_CORE_API AgentStorage {
    public:
        void add(const StorageAgent* agent, const ModificationCallback& fits);
        void remove(const StorageAgent* agent);
        /// The first agent that fits the archive; null if there is none.
        [[nodiscard]] const StorageAgent* getStorageAgent(const InputArchive* archive) const;
        [[nodiscard]] bool empty() const noexcept { return m_entries.empty(); }

    private:
        struct Entry {
            const StorageAgent* agent = nullptr;
            ModificationCallback fits;
        };
        zel::Vector<Entry> m_entries;
    };

    /// Created on first use, with all agents that are registered.
    [[nodiscard]] static StorageManager* instance();
    /// Empties the manager, at shutdown: it finds nothing any more, and the next instance() is another one.
    void cleanup();

    /// Registers the agent under its class name, for every archive.
    static void add(const StorageAgent* agent);
    /// Registers it under another name: that of a class that has moved, or one with the suffix "::deprecated"
    /// for what is only there to read old archives.
    static void add(const zel::String& name, const StorageAgent* agent);
    /// Registers an agent for archives that have the modifications, and behind it one for all others, both
    /// under the name of the first.
    static void add(const StorageAgent* agent,
                    const zel::Vector<zel::String>& modifications,
                    const StorageAgent* oldAgent);
    /// Takes the agent out under all its names. Also works when the library has been shut down.
    static void remove(const StorageAgent* agent);
    /// Takes back what registered the agent under the name first.
    static void remove(const zel::String& name, const StorageAgent* agent);

    /// The agent for a class name out of an archive. Looks also for old spellings, for the name with
    /// "::deprecated" behind it, and for classes that moved into a namespace; and where the first namespace
    /// is a library of the plug-in search path that is not loaded, it loads it.
    /// @param archive  may be null, which every agent fits
    /// @return null if there is none
    [[nodiscard]] const StorageAgent* find(const zel::String& name, const InputArchive* archive);
    /// Tells that a class was stored by its bare name, before it moved into a namespace. For good, as the
    /// registration of an agent.
    /// @param fullName  is looked for where nothing is registered under the bare name
    static void addMissingNamespace(const zel::String& className, const zel::String& fullName);

    /// Whether `find` may load libraries; true by default, also after a shutdown.
    void setLibraryLoadingEnabled(bool enable) noexcept;
    [[nodiscard]] bool isLibraryLoadingEnabled() const noexcept;

    void shutdown() override;
    [[nodiscard]] std::string getClassName() const override;
    ~StorageManager() override;

private:
    StorageManager();
    static void add(const zel::String& name, const StorageAgent* agent, const ModificationCallback& fits);

    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

/// Registers an agent for as long as it lives, as StorageManager::add does.
class ZEL_CORE_API StorageRegistration {
public:
    explicit StorageRegistration(const StorageAgent& agent);
    StorageRegistration(const zel::String& name, const StorageAgent& agent);
    StorageRegistration(const StorageAgent& agent,
                        const zel::Vector<zel::String>& modifications,
                        const StorageAgent& oldAgent);
    StorageRegistration(const StorageRegistration&) = delete;
    StorageRegistration& operator=(const StorageRegistration&) = delete;
    ~StorageRegistration();

private:
    zel::String m_name;
    zel::Vector<const StorageAgent*> m_agents;
};

} // namespace zelStream
