#pragma once

#include <zel/Export.h>
#include <zel/HashTable.h>
#include <zel/Integers.h>
#include <zel/Path.h>
#include <zel/Referenced.h>
#include <zel/ServicePointer.h>
#include <zel/Singleton.h>
#include <zel/StatisticsData.h>
#include <zel/String.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>

#include <atomic>
#include <functional>
#include <iosfwd>
#include <mutex>

namespace zel {

class TaskTimingReportHandle;

/// Gathers named numbers. Whoever wants to be measured registers itself by its address and a name, asks once
/// for slots of data, and from then on writes into them, which costs a few stores and no lock. Providers form
/// a tree that follows the nesting of what they measure; readers ask for a slot by the provider's name and
/// the data's, or by path, or print the tree.
///
/// The switch is off at first. It only tells providers whether to bother; registration works at all times.
/// @threads any thread, unless noted otherwise
class ZEL_CORE_API Statistics : public Singleton {
public:
    using AbstractData = StatisticsData;
    template <typename T>
    using Data = StatisticsDataT<T>;
    class ProviderHandle;

    /// The value of a datum and what has accumulated.
    struct TimingInfo {
        double value = 0;
        double accumulated = 0;
    };

    [[nodiscard]] static Statistics* instance();
    [[nodiscard]] static bool hasInstance() noexcept;

    void shutdown() override;
    [[nodiscard]] std::string getClassName() const override;
    ~Statistics() override;

    static void setEnable(bool enable) { instance()->m_enable.store(enable, std::memory_order_relaxed); }
    [[nodiscard]] static bool getEnable() { return instance()->m_enable.load(std::memory_order_relaxed); }
    [[nodiscard]] bool isEnabled() const noexcept { return m_enable.load(std::memory_order_relaxed); }

    /// Enters a provider below its parent. A parent that is not known yet gets a node without a name, which
    /// takes its place in the tree as soon as it registers.
    /// @param provider  the address it is known by; not null
    /// @param name      copied; several providers may share one
    /// @param parent    null for the top of the tree
    /// @return the provider's node; null, with a warning, if it is refused. The tree holds it; hold a
    /// reference too.
    ProviderHandle* registerDataProvider(void* provider, const char* name, void* parent);
    ProviderHandle* registerDataProvider(void* provider, const String& name, void* parent) {
        return registerDataProvider(provider, name.c_str(), parent);
    }
    /// The same with the three timers of a task.
    TaskTimingReportHandle* registerTaskTimerProvider(void* provider, const char* name, void* parent);
    /// Takes a provider and its data off the tree. One with children stays for them, below the root, with its
    /// data and without a name.
    void unregisterDataProvider(void* provider);
    /// Moves a provider, with all below it, under another parent.
    void setContext(void* provider, void* newParent);

    /// The data of the index-th provider of the name, in the order of registration; null without one.
    /// Stays readable for whoever holds it, also when its provider goes.
    /// @pre index is below the number of such providers; not checked
    [[nodiscard]] ref_ptr<AbstractData>
    getData(const char* providerName, const char* dataName, size_t index = 0) const;
    [[nodiscard]] ref_ptr<AbstractData>
    getData(const String& providerName, const String& dataName, size_t index = 0) const {
        return getData(providerName.c_str(), dataName.c_str(), index);
    }
    /// Walks down from the provider by the names of children; the last part names the data.
    /// @return null, with a warning if a provider is missing
    [[nodiscard]] ref_ptr<AbstractData> getData(void* provider, const Path& path) const;
    /// Zeros for data that does not exist.
    [[nodiscard]] TimingInfo
    getTimingInfo(const String& provider, const String& data, size_t index = 0) const;
    /// "VALUE (accumulated: ACCUMULATED)"
    [[nodiscard]] String getTimingString(const String& provider, const String& data, size_t index = 0) const;

    /// Sets all numbers to zero.
    void clear();
    /// Sets the current numbers to zero, and keeps what has accumulated.
    void clearCurrent();

    /// Writes the tree as an indented report.
    /// @param includeEmpty  whether branches without any number above zero are shown
    void print(std::ostream& stream, bool includeEmpty);
    [[nodiscard]] String printed(bool includeEmpty);
    /// Shows the visitor all providers below the root, a parent ahead of its children. It must not call the
    /// statistics: the tree's mutex is held.
    /// @param visitor  of the provider and its depth, from 0 on. What it throws passes on
    void visit(const std::function<void(const ProviderHandle& provider, uint32 depth)>& visitor) const;

    /// The mutex of the type system, which is taken ahead of the one here.
    [[nodiscard]] static TypeSystemMutex& getTypeSystemMutex();

protected:
    Statistics();

    // The tree's bookkeeping. The caller holds the mutex. A broken tree is reported in words, and the work
    // goes on.

    ProviderHandle* createRootNode();
    /// The node of the parent, or a new one without a name below the root.
    ProviderHandle* getOrCreateParentNode(void* parent);
    void createNameBinding(ProviderHandle* handle);
    void removeNameBinding(ProviderHandle* handle);
    /// Removes a node without name and children, and then those above it that are left so.
    void decayBranch(ProviderHandle* node);

private:
    friend class ProviderHandle; // m_mutex, m_root

    struct NameBinding {
        std::unique_ptr<char[]> name; // the key points at it
        Vector<ProviderHandle*> handles;
    };

    ProviderHandle* findProvider(void* provider) const;
    AbstractData* findData(const char* providerName, const char* dataName, size_t index) const;
    template <typename Handle>
    Handle* enter(void* provider, const char* name, void* parent);

    static ServicePointer<Statistics> s_instance;

    mutable RankedMutex<LockRank::Statistics> m_mutex;
    HashTable<const char*, NameBinding> m_names;
    HashTable<void*, ref_ptr<ProviderHandle>> m_providers;
    ProviderHandle* m_root = nullptr;
    std::atomic<bool> m_enable{false};
};

/// A node of the tree: a provider with its data.
/// @threads any thread for getOrCreateData and getData; the rest with the tree's mutex, or while nobody else
/// uses
///     the tree
class ZEL_CORE_API Statistics::ProviderHandle : public Referenced {
public:
    /// @param name  copied; null for a node that stands for a provider that is not registered
    explicit ProviderHandle(void* provider, const char* name = nullptr);
    ~ProviderHandle() override;

    /// Whether the report shows the data in the lines of a task's timers.
    [[nodiscard]] virtual bool isTaskTimer(const AbstractData* data) const;

    [[nodiscard]] void* getProvider() const noexcept { return m_provider; }
    /// Null for a node without a name.
    [[nodiscard]] const char* getName() const noexcept { return m_name.get(); }
    void setName(const char* name);
    [[nodiscard]] bool isImplicit() const noexcept { return m_name == nullptr; }
    [[nodiscard]] ProviderHandle* getParent() const noexcept { return m_parent; }
    [[nodiscard]] const Vector<ref_ptr<ProviderHandle>>& getChildren() const noexcept { return m_children; }
    [[nodiscard]] bool isEmpty() const noexcept { return m_empty; }

    /// The slot of the name, which is made at the first call. Keep it, and write through it.
    /// @param timing  for a new slot: whether it is a time
    /// @return owned by the node; null if there is a slot of the name with numbers of another type
    template <typename T>
    StatisticsDataT<T>* getOrCreateData(const char* name, bool timing = false) {
        return dynamic_cast<StatisticsDataT<T>*>(
            getOrInsertData(name, [&] { return new StatisticsDataT<T>(name, timing); }));
    }
    /// Enters data of one's own kind under its name; one without a name under the empty text. Replaces data
    /// that is there.
    void addData(AbstractData* data);
    /// Null if there is none.
    [[nodiscard]] ref_ptr<AbstractData> getData(const char* name) const;

    /// Appends a node that has no parent.
    void addChild(ProviderHandle* child);
    /// Takes the child from its present parent and appends it.
    void adoptChild(ProviderHandle* child);
    /// Adopts all children of the other node.
    void takeChildren(ProviderHandle* other);
    /// @return whether the node was a child of this one
    bool removeChild(ProviderHandle* child);

    /// Clears the data of the node and, with `recursive`, of all below.
    void clear(bool all, bool recursive);
    /// Marks the nodes whose branch holds no number other than zero. The first child that is not empty ends
    /// the search in its parent: the marks of the children after it stay as they were.
    void updateEmptyFlags();
    /// Writes the node and all below.
    void print(std::ostream& stream, bool includeEmpty, uint32 indentation) const;
    /// All that are times, or all that are none; most accumulated first. The timers of a task come ahead of
    /// the others.
    [[nodiscard]] Vector<const AbstractData*> getAllData(bool timing) const;

protected:
    /// As addData, for constructors and holders of the mutex.
    void insertData(AbstractData* data);

private:
    friend class Statistics;

    template <typename Make>
    AbstractData* getOrInsertData(const char* name, const Make& make) {
        const auto lock = lockTree();
        if (AbstractData* data = findData(name))
            return data;
        AbstractData* data = make();
        insertData(data);
        return data;
    }
    [[nodiscard]] static std::unique_lock<RankedMutex<LockRank::Statistics>> lockTree();
    [[nodiscard]] AbstractData* findData(const char* name) const;
    /// Without the timers of a task.
    [[nodiscard]] Vector<const AbstractData*> sortedData(bool timing) const;
    [[nodiscard]] bool hasData(bool timing) const;

    void* m_provider;
    std::unique_ptr<char[]> m_name;
    ProviderHandle* m_parent = nullptr;
    Vector<ref_ptr<ProviderHandle>> m_children;
    HashTable<const char*, ref_ptr<AbstractData>> m_data; // keyed by the data's own name
    bool m_empty = false;
};

/// The node of a task: three times, in milliseconds. Each run of the task adds to the wall time and to the
/// overhead. The compute cost is for whoever measures one: Task::getComputeCost has that of the last run.
class ZEL_CORE_API TaskTimingReportHandle : public Statistics::ProviderHandle {
public:
    explicit TaskTimingReportHandle(void* provider, const char* name = nullptr);
    ~TaskTimingReportHandle() override;

    [[nodiscard]] bool isTaskTimer(const StatisticsData* data) const override;

    [[nodiscard]] StatisticsDataT<double>* getComputeCost() const noexcept { return m_computeCost; }
    [[nodiscard]] StatisticsDataT<double>* getWallTime() const noexcept { return m_wallTime; }
    [[nodiscard]] StatisticsDataT<double>* getOverhead() const noexcept { return m_overhead; }

private:
    StatisticsDataT<double>* m_computeCost;
    StatisticsDataT<double>* m_wallTime;
    StatisticsDataT<double>* m_overhead;
};

} // namespace zel
