#pragma once

#include "CaptureColumn.h"
#include "Recordable.h"

#include <zel/Component.h>
#include <zel/Integers.h>
#include <zel/Name.h>
#include <zel/Path.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelData/EntityStorage.h>
#include <zelData/Frame.h>
#include <zelData/FrameIO.h>

#include <atomic>
#include <functional>
#include <memory>
#include <utility>

namespace zelData {

/// Keeps what happens to a storage, with numbers in place of pointers.
class StorageWatch : public EntityStorage::EventListener {
public:
    /// An event, and its place among those of all storages.
    struct Entry {
        zel::uint64 place;
        zel::ref_ptr<zel::Object::Event> event;
    };

    /// @param places  counts the events of all storages
    StorageWatch(EntityStorage* storage, std::atomic<zel::uint64>& places);
    StorageWatch(const StorageWatch&) = delete;
    StorageWatch& operator=(const StorageWatch&) = delete;
    ~StorageWatch() override;

    [[nodiscard]] zel::Vector<Entry>& entries() noexcept { return m_entries; }

    void destroyCallback(EntityStorage* storage) override;
    void createInstanceCallback(EntityStorage* storage, EntityPtr instance) override;
    void createInstancesCallback(EntityStorage* storage, EntityRange range) override;
    void createInstancesCallback(EntityStorage* storage, Array<EntityPtr> instances) override;
    void destroyInstanceCallback(EntityStorage* storage, EntityPtr instance) override;
    void destroyInstancesCallback(EntityStorage* storage, EntityRange range) override;
    void destroyInstancesCallback(EntityStorage* storage, Array<EntityPtr> instances) override;
    void permuteCallback(EntityStorage* storage, Array<zel::uint32> permutation) override;

private:
    void add(zel::Object::Event* event);

    EntityStorage* m_storage; // null once it has gone
    std::atomic<zel::uint64>& m_places;
    zel::Vector<Entry> m_entries;
};

/// One object of the tree that frames hold.
struct CaptureNode {
    /// One child as it was when the children were last gone through.
    struct Seen {
        zel::Object* object;
        zel::uint32 id; // another object may have got the place of one that has gone
        bool isReady;   // a value with a format, a storage with ids
        zel::Name name;
    };

    zel::Object* object = nullptr;
    zel::uint32 id = 0;
    RecordKind kind = RecordKind::None;
    zel::Name name; // in the frame
    std::unique_ptr<CaptureColumn> column;
    zel::Vector<std::unique_ptr<CaptureNode>> children;
    zel::Vector<Seen> seen;
    bool isTold = false; // by the present frame, itself or something below

    // Of storages
    std::unique_ptr<StorageWatch> watch;
    std::unique_ptr<CaptureColumn> ids; // the index of each id
    bool tellsTables = false;
    bool wasTold = false; // since the last key frame
    zel::uint64 size = 0; // as last told
    zel::uint64 capacity = 0;
};

/// What the bindings take of a tree, and what was last told of it.
class CaptureTree {
public:
    using Omit = std::function<void(const zel::Path&, const zel::String&)>;

    CaptureTree(zel::Component* root, Omit omit) : m_root(root), m_omit(std::move(omit)) {}

    /// Goes through the tree.
    /// @return whether something that was taken has gone, or the bindings are others
    [[nodiscard]] bool update(const FrameIO::BindingVector& bindings);
    /// Looks at all elements.
    void look();
    void startCompare(CapturePieces& pieces);
    /// Decides what the frame tells.
    /// @return whether an increment can tell it
    [[nodiscard]] bool decide(bool isKeyFrame, const CapturePieces& compared);
    /// The payload of what is told, and of all, in bytes.
    [[nodiscard]] zel::uint64 getToldBytes() const noexcept { return m_toldBytes; }
    [[nodiscard]] zel::uint64 getWholeBytes() const noexcept { return m_wholeBytes; }
    /// Adds nodes and events; the elements follow with the pieces.
    void build(Frame* frame, CapturePieces& copies);
    [[nodiscard]] zel::uint64 getMemory() const;

private:
    struct Binding {
        zel::Path internalPath;
        zel::Path externalPath;
        bool recursive = false;
        zel::Vector<zel::Name> names; // of the internal path
        std::unique_ptr<CaptureNode> node;
    };

    void bind(const FrameIO::BindingVector& bindings);
    void updateChildren(CaptureNode& node, bool recursive, zel::uint32 depth);
    [[nodiscard]] bool isUnchanged(const CaptureNode& node) const;
    [[nodiscard]] std::unique_ptr<CaptureNode>
    makeNode(zel::Object* object, const Recordable& what, const CaptureNode* parent);
    template <typename Visit>
    void forEachNode(CaptureNode& node, const Visit& visit);
    template <typename Visit>
    void forEachNode(const Visit& visit);
    void look(CaptureNode& node);
    [[nodiscard]] bool
    decide(CaptureNode& node, bool isKeyFrame, bool sizeChanged, const CapturePieces& compared);
    void build(CaptureNode& node,
               Frame* frame,
               zel::Component* parent,
               const zel::Path& path,
               CapturePieces& copies);
    void buildChildren(CaptureNode& node,
                       Frame* frame,
                       zel::Component* parent,
                       const zel::Path& path,
                       CapturePieces& copies);
    void addEvents(Frame* frame);

    zel::Component* m_root;
    Omit m_omit;
    zel::Vector<std::pair<zel::ref_ptr<Frame::DataBinding>, bool>> m_bound; // as they were, and how
    bool m_isBound = false;
    zel::Vector<Binding> m_bindings;
    bool m_hasLost = false;
    StorageIds m_storages;
    std::atomic<zel::uint64> m_numEvents{0}; // of all storages, which tasks may change side by side
    zel::uint64 m_toldBytes = 0;
    zel::uint64 m_wholeBytes = 0;
};

} // namespace zelData
