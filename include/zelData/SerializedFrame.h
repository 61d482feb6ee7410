#pragma once

#include <zel/Export.h>
#include <zel/HashVector.h>
#include <zel/Integers.h>
#include <zel/Name.h>
#include <zel/Referenced.h>
#include <zel/Vector.h>
#include <zel/Xml.h>
#include <zel/ref_ptr.h>
#include <zelData/Array.h>
#include <zelData/BinaryData.h>
#include <zelData/ByteStream.h>
#include <zelData/EntityPtr.h>
#include <zelData/EntityRange.h>
#include <zelData/Frame.h>

#include <json/forwards.h>

#include <iosfwd>

namespace zelData {

class Buffer;
class ElementSource;
class Format;
class FrameReader;
class Value;

/// The way between frames and bytes. A frame becomes a header, which tells its tree, and a data segment with
/// the bytes of all elements; both are kept apart, so that a header can be looked at without the elements.
///
///     Frame  ->  SerializedFrame(frame)       ->  writeBinaryHeader, writeDataSegment
///     Frame  <-  extractFrame(header, data)   <-  the two blocks
///
/// The nodes (zelData/SerializedNodes.h) refer to the elements of the frame, which must not change until the
/// segment is written: no element is copied, but for texts, handles and arrays, which are taken apart into
/// plain buffers. The layout of the binary header stands at BinaryHeader.
///
/// What no file can hold is left out with a message: empty buffers and components without any node, elements
/// that are neither plain bytes nor texts, handles or arrays of plain elements, and what is no node of a
/// frame.
///
/// Owned through ref_ptr.
/// @threads external lock
class ZEL_CORE_API SerializedFrame : public zel::Referenced {
public:
    /// How a header is written.
    enum HeaderFormat : zel::int32 { XML_HEADER = 0, JSON_HEADER = 1, BINARY_HEADER = 2, INVALID = -1 };
    /// What a fault in bytes that are read does: ends the process as a failed verification, or throws a
    /// std::runtime_error with its text, for readers that must survive any file.
    enum class OnFault : zel::uint8 { EndProcess, Throw };

    class Node;
    class DataNode;
    class Value;
    class Buffer;
    class Component;
    class CustomBuffer;
    class PartialBuffer;
    class EntityStorage;
    class StorageBatchEvent;
    struct BinaryHeader;

    /// The ids of names in a stream of binary headers, for the writer and for the reader. They belong to the
    /// stream and outlive a frame; a key frame begins anew.
    using NameTable = zel::HashVector<zel::Name, zel::uint32>;
    using NameLookup = zel::HashVector<zel::uint32, zel::Name>;

    /// Bytes, and where they belong in the data segment.
    struct BinarySegment {
        zel::ref_ptr<BinaryData> data;
        zel::uint64 offset;
    };

    /// Deeper trees are neither written nor read.
    static constexpr zel::uint32 MaxDepth = 512;

    /// @param frame  outlives this object
    /// @param leftOut  the name of a child of the frame that is passed over
    /// @throws std::runtime_error  for a tree that is deeper than MaxDepth, and for texts of 4 GiB
    explicit SerializedFrame(const Frame* frame, const zel::Name& leftOut = zel::Name());
    /// Without a frame behind it.
    explicit SerializedFrame(Component* root);
    ~SerializedFrame() override;

    [[nodiscard]] const Frame* getFrame() const noexcept { return m_frame; }
    [[nodiscard]] Component* getRoot() const noexcept { return m_root.get(); }
    /// In the order of the tree, without the padding between them.
    [[nodiscard]] const zel::Vector<BinarySegment>& getSegments() const noexcept { return m_segments; }
    /// Of the whole data segment, in bytes.
    [[nodiscard]] zel::uint64 getDataSize() const noexcept { return m_dataSize; }

    /// A header that is read by itself.
    /// @throws std::runtime_error  for a node that does not fit into the 32-bit fields of the header, named
    [[nodiscard]] zel::ref_ptr<BinaryData> writeBinaryHeader() const;
    /// The header of the next frame of a stream; a key frame empties the table.
    [[nodiscard]] zel::ref_ptr<BinaryData> writeBinaryHeader(NameTable& names) const;
    /// The element "Frame"; goes to the caller.
    [[nodiscard]] TiXmlElement* writeXmlHeader() const;
    /// Writes the bytes of all elements from the stream's position on. A stream that fails ends the process.
    void writeDataSegment(std::ostream& stream) const;

    /// Makes a buffer of `size` elements that lives as long as this object.
    zelData::Buffer* createCustomBuffer(const zel::Name& name, const Format* format, zel::uint64 size);

    /// The frame of a header and its segment. Nothing of the frame refers to the two blocks afterwards; it is
    /// marked as serialized.
    /// @param names   of the stream
    /// @param clearNameTableOnKeyFrame  whether a key frame begins the names anew
    /// @param reader  is asked for each node whether it is wanted; null wants all
    /// @return a new frame without owner
    [[nodiscard]] static Frame* extractFrame(const BinaryData* header,
                                             const BinaryData* segment,
                                             NameLookup& names,
                                             bool clearNameTableOnKeyFrame,
                                             FrameReader* reader,
                                             OnFault onFault = OnFault::EndProcess);
    /// The same of a header that is read by itself.
    [[nodiscard]] static Frame*
    extractFrame(const BinaryData* header, const BinaryData* segment, OnFault onFault = OnFault::EndProcess);
    /// The same of a header in XML.
    /// @throws std::runtime_error with file and row, where attributes lack or cannot be read
    [[nodiscard]] static Frame* extractFrame(TiXmlElement* element, const BinaryData* segment);
    /// Takes the names of a binary header and nothing else, to catch up on frames that are passed over.
    static void
    updateNameTable(const BinaryData* header, NameLookup& names, OnFault onFault = OnFault::EndProcess);
    /// The frame that a tree of nodes tells.
    /// @param source  where the elements are in place of the memory that the nodes lead to; may be null
    /// @return a new frame without owner
    /// @throws std::runtime_error  for nodes with more bytes than their segment has
    [[nodiscard]] static Frame* createFrame(const Component* root,
                                            zel::uint64 index,
                                            double timeStamp,
                                            double timeStep,
                                            OnFault onFault = OnFault::EndProcess,
                                            ElementSource* source = nullptr);

private:
    class Builder;
    class Creator;

    const Frame* m_frame = nullptr;
    zel::ref_ptr<Component> m_root;
    zel::Vector<BinarySegment> m_segments;
    zel::Vector<zel::ref_ptr<zelData::Buffer>> m_customBuffers;
    zel::uint64 m_dataOffset = 0; // the end of the data segment while nodes are added
    zel::uint64 m_dataSize = 0;
};

/// What happened to several instances of a storage at once.
class ZEL_CORE_API SerializedFrame::StorageBatchEvent : public zel::Object::Event {
public:
    enum class Type : zel::uint32 { Create = 0, Destroy = 1 };

    /// @param storage  a number where the frame is serialized; see Frame::isSerialized
    StorageBatchEvent(Type type, zelData::EntityStorage* storage) : m_type(type), m_storage(storage) {}

    void add(const EntityRange& range);
    void add(const Array<EntityPtr>& instances);
    void add(const Array<zel::uint32>& ids);
    void add(zel::uint64 id) { m_ids.push_back(id); }

    [[nodiscard]] Type getType() const noexcept { return m_type; }
    [[nodiscard]] zelData::EntityStorage* getStorage() const noexcept { return m_storage; }
    [[nodiscard]] const zel::Vector<zel::uint64>& getIdVector() const noexcept { return m_ids; }

private:
    Type m_type;
    zelData::EntityStorage* m_storage;
    zel::Vector<zel::uint64> m_ids;
};

/// The header of a frame as bytes, in the byte order of the machine:
///
///     Frame record    56 bytes
///     name table      u32 count, u32 firstId, count times (u32 length, the characters), u32 EndTag
///     events          u32 count, the events, u32 EndTag
///     node tree       the record of the root; its children follow it
///
///     event           u32 name of its type, then
///                     "EntityStorage.CreateInstanceEvent"    u32 storage
///                     "EntityStorage.DestroyInstanceEvent"   u32 storage, u32 instance
///                     "EntityStorage.PermuteEvent"           u32 storage
///                     "EntityStorage.StorageBatchEvent"      u32 storage, u32 type, u32 n, n times u64
///                     and, of old journals alone,
///                     "EntityStorage.CreateInstancesEvent"   u32 storage, u32 count
///                     "EntityStorage.DestroyInstancesEvent"  u32 storage, u32 begin, u32 end
///
///     node            u32 type, u32 id, u32 name, then
///     Value           u32 format, u32 numBytes, u32 offset
///     Buffer          u32 format, u32 numBytes, u32 offset, u32 numElements
///     Component       u32 numChildren, the children, u32 EndTag
///     CustomBuffer    u32 numChildren, u32 format, u32 numElements, the children, u32 EndTag
///     PartialBuffer   u32 numChildren, u32 format, u32 numElements, u32 fullSize, the children, u32 EndTag
///     EntityStorage   u32 numChildren, u32 entity, u32 numElements, u32 capacity, the children, u32 EndTag
///
/// Names, formats and entities are ids of the name table, where each name stands once in a stream since the
/// last key frame; the empty name has the id EmptyName and never stands there. A storage is the low half of
/// the event's reference.
struct ZEL_CORE_API SerializedFrame::BinaryHeader {
    class FrameExtractor;

    static constexpr zel::uint32 EndTag = 0xFFFFFFFFU;
    static constexpr zel::uint32 EmptyName = 0xFFFFFFFFU;

    struct Frame {
        zel::uint64 index;
        double timeStamp;
        double timeStep;
        zel::uint32 id;
        zel::uint8 isKeyFrame;
        zel::uint8 padding1[3];
        zel::uint64 headerSize; ///< of the whole header with this record, in bytes
        zel::uint64 dataSize;   ///< of the data segment, in bytes
        zel::uint32 endTag;
        zel::uint32 padding2;
    };
    static_assert(sizeof(Frame) == 56);

    /// The bytes of the section that holds the names from firstId on.
    [[nodiscard]] static zel::uint64 calculateNameTableSize(const NameTable& names, zel::uint32 firstId);
    static void writeNameTable(ByteStream& stream, const NameTable& names, zel::uint32 firstId);
    static void
    extractNameTable(ByteStream& stream, NameLookup& names, OnFault onFault = OnFault::EndProcess);
    /// The id of the name, which is entered if it is new.
    [[nodiscard]] static zel::uint32 getNameId(const zel::Name& name, NameTable& names);
    /// The bytes of the section of the events; an event that is none of the above ends the process.
    [[nodiscard]] static zel::uint64 calculateSerializedEventSize(const zelData::Frame::EventVector& events);
    /// An event that is not written any more, or was never, ends the process.
    static void writeEvents(const zelData::Frame::EventVector& events, ByteStream& stream, NameTable& names);
    /// A block of its own: a name table and the events.
    [[nodiscard]] static zel::ref_ptr<BinaryData> writeEvents(const zelData::Frame::EventVector& events);
};

/// Shows a value, or the elements of a buffer, for inspection: texts, booleans, numbers, and arrays of
/// numbers for vectors of three and quaternions; a buffer is an array of its elements. Elements of another
/// type stay out, and "Unknown format: " with its name is printed on the standard output stream.
ZEL_CORE_API void writeJson(Json::Value& json, const Value* value);
ZEL_CORE_API void writeJson(Json::Value& json, const Buffer* buffer);

} // namespace zelData
