#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Name.h>
#include <zel/Path.h>
#include <zel/String.h>
#include <zel/ref_ptr.h>
#include <zelData/BinaryData.h>
#include <zelData/Frame.h>
#include <zelData/SerializedFrame.h>
#include <zelData/SerializedNodes.h>

#include <functional>
#include <vector>

namespace zelData {

/// A frame as it stands in a file: nodes by name, the names of their formats and entities, and their bytes.
/// It needs no format and no entity of this process, and no byte that it is given ends the process: what
/// tools look into files with.
///
///     PlainFrame::Names names; // of the stream
///     PlainFrame frame(header, segment, names);
///     for (const PlainFrame::Node& node : frame.getRoot().children) ...
///
/// @threads external lock
class ZEL_CORE_API PlainFrame {
public:
    using Type = SerializedFrame::Node::Type;
    /// The names of a stream, by their ids.
    using Names = std::vector<zel::Name>;
    /// Is asked for the path of each node.
    using Wants = std::function<bool(const zel::String&)>;

    struct Node {
        Type type = Type::ComponentType;
        zel::uint32 id = 0;
        zel::Name name;
        zel::Name format;            ///< of elements; of a storage its entity, empty if it has none
        zel::uint64 numElements = 0; ///< of buffers; of a storage its instances; 1 for a value
        zel::uint64 fullSize = 0;    ///< of a partial buffer; of a storage its capacity
        zel::uint64 offset = 0;      ///< of values and plain buffers: the place of the elements in data
        zel::uint64 numBytes = 0;    ///< of them
        zel::ref_ptr<const BinaryData> data; ///< null where a frame was read without its segment
        std::vector<Node> children;

        /// Of the elements; null without them.
        [[nodiscard]] const zel::uint8* bytes() const { return data ? data->getData() + offset : nullptr; }
        /// Of one element of a value or plain buffer.
        [[nodiscard]] zel::uint64 elementSize() const {
            return numElements == 0 ? 0 : numBytes / numElements;
        }
        [[nodiscard]] bool hasChildren() const { return type != Type::ValueType && type != Type::BufferType; }
        /// The first child of the name; null without one.
        [[nodiscard]] const Node* find(const zel::Name& childName) const;
    };

    /// An empty key frame.
    PlainFrame() = default;
    /// Holds each field against the bytes that are there.
    /// @param segment  null to look at the header alone
    /// @param names    of the stream: a key frame empties them, and the frame adds its own
    /// @throws std::runtime_error that tells the first fault, and where in the header it lies; the names may
    ///     then be anything
    PlainFrame(const BinaryData* header, const BinaryData* segment, Names& names);
    /// The structure alone, without the names of the frames ahead: those that are not in the header are
    /// empty. Where the type of an event is one of these, what follows it is not looked at.
    /// @throws std::runtime_error as above
    [[nodiscard]] static PlainFrame withoutNames(const BinaryData* header);

    [[nodiscard]] const SerializedFrame::BinaryHeader::Frame& getRecord() const noexcept { return m_record; }
    [[nodiscard]] const Node& getRoot() const noexcept { return m_root; }
    /// The node that the names lead to, from the root on; null without one. An empty path leads to the root.
    [[nodiscard]] const Node* find(const zel::Path& path) const;
    [[nodiscard]] zel::uint64 getNumNodes() const noexcept { return m_numNodes; }
    [[nodiscard]] zel::uint32 getNumEvents() const noexcept { return m_numEvents; }
    /// The end of the last element in the segment.
    [[nodiscard]] zel::uint64 getEndOfElements() const noexcept { return m_endOfElements; }

    /// What the elements themselves tell wrong: tables of places, ranges, counts of elements, and sizes of
    /// elements of formats that are known.
    /// @return the first fault, with the node's path; empty if there is none
    [[nodiscard]] zel::String findFault() const;

    /// Applies an increment, or takes the place of all for a key frame. What the frame holds in whole takes
    /// the place of what was there, partial buffers are written into it, and storages bring their columns to
    /// their size. Afterwards this frame has index, times and id of the other one, and its events.
    /// @param maxBytes  that all buffers together may grow to
    /// @throws std::runtime_error where nodes do not fit together; what was merged till then stays
    void merge(const PlainFrame& other, zel::uint64 maxBytes);

    /// The frame as a key frame in bytes, with all the names, under the ids that they have there.
    void write(const Names& names, zel::ref_ptr<BinaryData>& header, zel::ref_ptr<BinaryData>& segment) const;

    /// The frame with those of the nodes that are wanted, and the components that they lie in, as plain
    /// elements and without events.
    [[nodiscard]] PlainFrame getPart(const Wants& wants) const;
    /// The same as a frame. Elements whose format is not known become bytes, and an entity that is not known
    /// is none.
    /// @throws std::runtime_error for parts of buffers that do not belong together
    /// @return a new frame without owner
    [[nodiscard]] Frame* createFrame(const Wants& wants) const;

private:
    friend class PlainJournal; // reads elements for nodes without them

    class Parser;
    class Merger;
    class Writer;

    SerializedFrame::BinaryHeader::Frame m_record{};
    Node m_root;
    zel::uint64 m_numNodes = 0; // with the root
    zel::uint32 m_numEvents = 0;
    std::vector<zel::uint8> m_events; // as they stand in the header
    zel::uint64 m_endOfElements = 0;
    zel::uint64 m_numBytes = 0; // of the elements of all nodes
};

} // namespace zelData
