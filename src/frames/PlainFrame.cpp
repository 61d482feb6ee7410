#include <zel/Path.h>
#include <zel/String.h>
#include <zelData/ByteStream.h>
#include <zelData/PlainFrame.h>

#include <algorithm>
#include <stdexcept>
#include <string_view>
#include <utility>

// Reading of headers without the types that they name.

namespace zelData {

using zel::uint32;
using zel::uint64;
using PlainNode = PlainFrame::Node;
using BinaryHeader = SerializedFrame::BinaryHeader;

class PlainFrame::Parser {
public:
    Parser(const BinaryData* header, const BinaryData* segment, Names& names, bool knowsAllNames)
        : m_stream(header), m_segment(segment), m_names(names), m_knowsAllNames(knowsAllNames) {}

    void parse(PlainFrame& frame) {
        frame.m_record = read<BinaryHeader::Frame>();
        m_dataSize = frame.m_record.dataSize;
        const auto headerSize = static_cast<uint64>(m_stream.end() - m_stream.begin());
        if (frame.m_record.headerSize != headerSize || frame.m_record.endTag != BinaryHeader::EndTag)
            fail("there is no record of a frame of this size");
        if (m_segment != nullptr && m_segment->getSize() != m_dataSize)
            fail("the data segment has another size");
        parseNames(frame.m_record.isKeyFrame != 0);
        const zel::uint8* begin = m_stream.head();
        if (!parseEvents(frame)) {
            frame.m_endOfElements = m_dataSize;
            return;
        }
        frame.m_events.assign(begin, static_cast<const zel::uint8*>(m_stream.head()));
        frame.m_root = parseNode(1);
        if (frame.m_root.type != Type::ComponentType)
            fail("the root is no component");
        if (m_stream.remaining() != 0)
            fail("bytes follow the last node");
        frame.m_endOfElements = m_endOfElements;
        frame.m_numNodes = m_numNodes;
        frame.m_numBytes = m_numBytes;
    }

private:
    [[noreturn]] void fail(const char* what) const {
        throw std::runtime_error(
            zel::String::format("%s, at byte %llu of the header",
                                what,
                                static_cast<unsigned long long>(m_stream.head() - m_stream.begin())));
    }
    template <typename T>
    T read() {
        if (m_stream.remaining() < sizeof(T))
            fail("the header ends too early");
        return m_stream.read<T>();
    }
    uint32 readNumber() { return read<uint32>(); }
    void readEndTag(const char* what) {
        if (readNumber() != BinaryHeader::EndTag)
            fail(what);
    }
    zel::Name readName() {
        const uint32 id = readNumber();
        if (id == BinaryHeader::EmptyName)
            return {};
        if (id >= m_firstId && id - m_firstId < m_names.size())
            return m_names[id - m_firstId];
        if (m_knowsAllNames)
            fail("a name is not known");
        return {};
    }

    void parseNames(bool isKeyFrame) {
        if (isKeyFrame)
            m_names.clear();
        const uint32 count = readNumber();
        const uint32 firstId = readNumber();
        if (uint64{firstId} + count > BinaryHeader::EmptyName || (isKeyFrame && firstId != 0) ||
            (m_knowsAllNames && firstId != m_names.size()))
            fail("the ids of names do not go on");
        if (!m_knowsAllNames)
            m_firstId = firstId;
        for (uint32 i = 0; i < count; ++i) {
            const uint32 length = readNumber();
            if (m_stream.remaining() < length)
                fail("a name is longer than the header");
            const auto* text = reinterpret_cast<const char*>(m_stream.readBytes(length));
            m_names.emplace_back(std::string(text, length));
        }
        readEndTag("the names do not end where they must");
    }

    /// @return whether the end of the events could be found
    bool parseEvents(PlainFrame& frame) {
        frame.m_numEvents = readNumber();
        for (uint32 i = 0; i < frame.m_numEvents; ++i) {
            const zel::Name name = readName();
            const std::string_view type(name.c_str());
            if (type.empty() && !m_knowsAllNames)
                return false;
            (void)readNumber(); // the storage
            uint64 rest = 0;
            if (type == "EntityStorage.StorageBatchEvent") {
                if (readNumber() > 1)
                    fail("an event is neither of creation nor of destruction");
                rest = uint64{readNumber()} * sizeof(uint64);
            } else if (type == "EntityStorage.DestroyInstanceEvent" ||
                       type == "EntityStorage.CreateInstancesEvent") {
                rest = 4;
            } else if (type == "EntityStorage.DestroyInstancesEvent") {
                rest = 8;
            } else if (type != "EntityStorage.CreateInstanceEvent" && type != "EntityStorage.PermuteEvent") {
                fail("an event is of no known type");
            }
            if (m_stream.remaining() < rest)
                fail("an event is longer than the header");
            (void)m_stream.readBytes(rest);
        }
        readEndTag("the events do not end where they must");
        return true;
    }

    // NOLINTNEXTLINE(misc-no-recursion): MaxDepth bounds it
    PlainNode parseNode(uint32 depth) {
        if (depth > SerializedFrame::MaxDepth)
            fail("nodes lie more than 512 deep");
        ++m_numNodes;
        PlainNode node;
        const uint32 type = readNumber();
        if (type > Type::EntityStorageType)
            fail("a node is of no known type");
        node.type = static_cast<Type>(type);
        node.id = readNumber();
        node.name = readName();
        if (!node.hasChildren()) {
            parseElements(node);
            return node;
        }
        const uint32 numChildren = readNumber();
        if (node.type != Type::ComponentType) {
            node.format = readName();
            node.numElements = readNumber();
        }
        if (node.type == Type::PartialBufferType || node.type == Type::EntityStorageType)
            node.fullSize = readNumber();
        if (numChildren > m_stream.remaining() / SmallestNode)
            fail("a node has more children than the header");
        for (uint32 i = 0; i < numChildren; ++i)
            node.children.push_back(parseNode(depth + 1));
        readEndTag("the children of a node do not end where they must");
        return node;
    }

    void parseElements(PlainNode& node) {
        node.format = readName();
        node.numBytes = readNumber();
        node.offset = readNumber();
        node.numElements = node.type == Type::BufferType ? readNumber() : 1;
        if (node.offset > m_dataSize || node.numBytes > m_dataSize - node.offset)
            fail("elements lie outside of the data segment");
        if (node.numElements == 0 ? node.numBytes != 0 : node.numBytes % node.numElements != 0)
            fail("a number of bytes is no multiple of that of elements");
        m_endOfElements = std::max(m_endOfElements, node.offset + node.numBytes);
        m_numBytes += node.numBytes;
        node.data = m_segment;
    }

    static constexpr uint32 SmallestNode = 20; // a component without children

    ByteStream m_stream;
    const BinaryData* m_segment;
    Names& m_names;
    bool m_knowsAllNames;
    uint32 m_firstId = 0; // of the names, where those ahead are not known
    uint64 m_dataSize = 0;
    uint64 m_endOfElements = 0;
    uint64 m_numNodes = 0;
    uint64 m_numBytes = 0;
};

PlainFrame::PlainFrame(const BinaryData* header, const BinaryData* segment, Names& names) {
    Parser(header, segment, names, true).parse(*this);
}

PlainFrame PlainFrame::withoutNames(const BinaryData* header) {
    PlainFrame frame;
    Names names;
    Parser(header, nullptr, names, false).parse(frame);
    return frame;
}

const PlainNode* PlainNode::find(const zel::Name& childName) const {
    const auto child = std::find_if(
        children.begin(), children.end(), [&](const PlainNode& node) { return node.name == childName; });
    return child == children.end() ? nullptr : &*child;
}

const PlainNode* PlainFrame::find(const zel::Path& path) const {
    const PlainNode* node = &m_root;
    for (const zel::Name& name : path)
        if ((node = node->find(name)) == nullptr)
            break;
    return node;
}

} // namespace zelData
