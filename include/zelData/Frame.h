#pragma once

#include <zel/Component.h>
#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Name.h>
#include <zel/Object.h>
#include <zel/Path.h>
#include <zel/Referenced.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>

#include <atomic>
#include <iosfwd>
#include <stdexcept>

namespace zel {
class Clock;
} // namespace zel

namespace zelData {

class Buffer;
class EntityStorage;
class Track;
class Value;

/// The data of a simulation at one instant: a tree that mirrors the part of the object tree that was
/// captured, and what happened to storages since the frame before. A key frame stands by itself; any other
/// holds only what changed, and makes sense once it is merged onto what came before.
///
/// The nodes of the tree are values, buffers, partial buffers, storages (Frame::EntityStorage), views of
/// entities and plain components, and nothing else. See zelData/FrameNodes.h.
///
/// Owned through ref_ptr.
/// @threads external lock: a frame belongs to whoever holds it; concurrent reads. The marks of tracks: any
///     thread
class ZEL_CORE_API Frame : public zel::Component {
public:
    class DataBinding;
    class EntityStorage;
    class MergeException;
    class PartialBuffer;

    using EventVector = zel::Vector<zel::ref_ptr<zel::Object::Event>>;

    /// The id of nodes that stand for no object of a simulation.
    static constexpr zel::uint32 NoId = 0xFFFFFFFFU;

    /// What a frame is known by without its content.
    struct Header {
        zel::uint64 index;
        double timeStep;  ///< of the simulation, in its unit of time
        double timeStamp; ///< the simulation's time
        zel::uint32 id;   ///< of the frame as an object
        bool isKeyFrame;
    };

    Frame(zel::uint64 index, double timeStamp, double timeStep);
    /// Takes index, time and step that the clock has now.
    explicit Frame(zel::Clock* clock);
    ~Frame() override;

    // The header, and the marks that tracks leave

    [[nodiscard]] Header getHeader() const;
    [[nodiscard]] zel::uint64 getIndex() const noexcept { return m_index; }
    void setIndex(zel::uint64 index) noexcept { m_index = index; }
    [[nodiscard]] double getTimeStamp() const noexcept { return m_timeStamp; }
    void setTimeStamp(double timeStamp) noexcept { m_timeStamp = timeStamp; }
    [[nodiscard]] double getTimeStep() const noexcept { return m_timeStep; }
    void setTimeStep(double timeStep) noexcept { m_timeStep = timeStep; }
    [[nodiscard]] bool isKeyFrame() const noexcept { return m_isKeyFrame; }
    void setKeyFrame(bool flag) noexcept { m_isKeyFrame = flag; }
    /// The track that owns or made the frame; not kept alive.
    [[nodiscard]] Track* getTrack() const noexcept { return m_track.load(std::memory_order_relaxed); }
    void setTrack(Track* track) noexcept { m_track.store(track, std::memory_order_relaxed); }
    /// Whether the frame stands in a queue.
    [[nodiscard]] bool isQueued() const noexcept { return m_queued.load(std::memory_order_relaxed); }
    void setQueued(bool flag) noexcept { m_queued.store(flag, std::memory_order_relaxed); }
    /// Whether the cache of a reader has dropped the frame.
    [[nodiscard]] bool isDiscardedFromCache() const noexcept {
        return m_discardedFromCache.load(std::memory_order_relaxed);
    }
    void setDiscardedFromCache(bool flag) noexcept {
        m_discardedFromCache.store(flag, std::memory_order_relaxed);
    }
    /// Whether the frame follows a jump.
    [[nodiscard]] bool isJumpFrame() const noexcept { return m_jumpFrame; }
    void setJumpFrame(bool flag) noexcept { m_jumpFrame = flag; }
    /// Whether references to storages hold their object ids in place of pointers: nobody may follow them.
    [[nodiscard]] bool isSerialized() const noexcept { return m_serialized; }
    void setSerialized(bool flag) noexcept { m_serialized = flag; }

    /// The payload of all nodes, in bytes; kept by the operations of this class. Whoever changes nodes behind
    /// its back sets it.
    [[nodiscard]] zel::uint64 getNumBytes() const noexcept { return m_numBytes; }
    void setNumBytes(zel::uint64 n) noexcept { m_numBytes = n; }

    /// The buffer that carries an archive of changed objects; null without one.
    [[nodiscard]] Buffer* getIncrementalFrameArchiveBuffer() noexcept {
        return m_incrementalFrameArchiveBuffer.get();
    }
    [[nodiscard]] const Buffer* getIncrementalFrameArchiveBuffer() const noexcept {
        return m_incrementalFrameArchiveBuffer.get();
    }
    void setIncrementalFrameArchiveBuffer(Buffer* buffer);

    // Building. The components on the way of a path are made where they lack, with the id NoId. Whoever adds
    // many nodes turns rebinding off meanwhile.

    /// The component that is to hold the last part of the path; the frame itself for a path of one part. An
    /// empty path, and one that leads through what is no component, fail as verifications.
    Component* getContext(const zel::Path& path);
    /// These two name the node by the last part of the path.
    void addComponent(Component* component, const zel::Path& path);
    void addStorage(EntityStorage* storage, const zel::Path& path);
    /// These leave the node its name.
    void addBuffer(Buffer* buffer, const zel::Path& path);
    void addBuffer(PartialBuffer* buffer, const zel::Path& path);
    void addValue(Value* value, const zel::Path& path);
    /// Adds to, and takes from, a component that stands in the frame.
    void addNode(Component* parent, zel::Object* node);
    void removeNode(zel::Object* node);
    /// Adds the tables of ids of a storage below the path: the index of each id, free ones included, and the
    /// id at each index.
    void addStorageMetaData(const zelData::EntityStorage* storage, const zel::Path& path);
    void addEvent(zel::Object::Event* event);
    void addEvents(const EventVector& events);
    void clearEvents() { m_events.clear(); }

    // Looking in

    [[nodiscard]] const EventVector& getEvents() const noexcept { return m_events; }
    /// The buffer that the path names; null if there is none.
    [[nodiscard]] Buffer* getBuffer(const zel::Path& path);
    /// The first child, depth first, with the object id; null without one. It must be a storage, which is
    /// verified. Does not look into buffers and values.
    [[nodiscard]] static EntityStorage* getStorageWithId(const Component* component, zel::uint32 id);
    /// The payload of a node with all below it, in bytes; anything else than a node ends the process.
    [[nodiscard]] static zel::uint64 calculateNumBytes(const zel::Object* object);

    // Changing

    /// Applies the other frame onto this one: nodes that lack are copied, ids included, storages are brought
    /// to the other's size, partial buffers are written into full ones, events are appended. Index and times
    /// stay, so that older data can be merged below a newer header. A key frame makes this one a key frame.
    /// @param overwrite  whether nodes that both have take the content of the other, of the same format;
    /// where
    ///     both are partial buffers, the elements that this one holds win
    /// @throws MergeException where the nodes of one name do not fit together; what was merged till then
    /// stays
    void merge(const Frame* other, bool overwrite);
    /// Brings the storages of the frame to where its events lead, in order, and drops the events; no storage
    /// of the simulation changes. The events must be of storages that live.
    void evaluateEventsLocally();

    [[nodiscard]] static zel::Model* ClassModel();

private:
    void addNamed(Component* component, const zel::Path& path);
    void mergeChildren(const Component* source, Component* target, bool overwrite);
    void merge(const Value* source, Component* target, bool overwrite);
    void merge(const PartialBuffer* source, Component* target, bool overwrite);
    void merge(const Buffer* source, Component* target, bool overwrite);
    void merge(const EntityStorage* source, Component* target, bool overwrite);
    void merge(const Component* source, Component* target, bool overwrite);
    template <typename Node>
    void addClone(const Node* node, Component* target);

    // Of tracks, which may share frames through their caches.
    std::atomic<Track*> m_track{nullptr};
    std::atomic<bool> m_queued{false};
    std::atomic<bool> m_discardedFromCache{false};
    bool m_jumpFrame = false;
    bool m_isKeyFrame = false;
    bool m_serialized = false;
    zel::uint64 m_index;
    double m_timeStamp;
    double m_timeStep;
    zel::uint64 m_numBytes = 0;
    EventVector m_events;
    zel::ref_ptr<Buffer> m_incrementalFrameArchiveBuffer;
    const Frame* m_mergeSource = nullptr; // while merge runs
};

/// "{ index=1, timeStep=0.5, timeStamp=0.5, isKeyFrame=1}"
ZEL_CORE_API std::ostream& operator<<(std::ostream& stream, const Frame::Header& header);

/// Which path of a simulation is bound to which path of a frame.
class ZEL_CORE_API Frame::DataBinding : public zel::Referenced {
public:
    explicit DataBinding(const zel::Path& path) : DataBinding(path, path) {}
    DataBinding(zel::Path internalPath, zel::Path externalPath)
        : m_internalPath(std::move(internalPath)), m_externalPath(std::move(externalPath)) {}

    /// Where the data come from: of the simulation when recording, of the frame when replaying.
    [[nodiscard]] const zel::Path& getInternalPath() const noexcept { return m_internalPath; }
    [[nodiscard]] const zel::Path& getExternalPath() const noexcept { return m_externalPath; }
    /// Whether all below the path is bound too.
    [[nodiscard]] bool isRecursive() const noexcept { return m_recursive; }
    void setRecursive(bool flag) noexcept { m_recursive = flag; }

private:
    zel::Path m_internalPath;
    zel::Path m_externalPath;
    bool m_recursive = false;
};

/// Two nodes of one name that do not fit together. Keeps both alive.
class ZEL_CORE_API Frame::MergeException : public std::runtime_error {
public:
    MergeException(const zel::Object* node, const zel::Object* collisionNode);
    ~MergeException() override;

    /// The node that was to be merged.
    [[nodiscard]] const zel::Object* getNode() const noexcept { return m_node.get(); }
    /// The node that was there.
    [[nodiscard]] const zel::Object* getCollisionNode() const noexcept { return m_collisionNode.get(); }

private:
    zel::ref_ptr<const zel::Object> m_node;
    zel::ref_ptr<const zel::Object> m_collisionNode;
};

} // namespace zelData
