#include "ForeignName.h"
#include "PlainPath.h"
#include "data/FormatLookup.h"

#include <zelData/ByteStream.h>
#include <zelData/Format.h>
#include <zelData/PlainFrame.h>
#include <zelData/Type.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <unordered_map>
#include <utility>

// What the nodes of a plain frame tell, and their way into bytes and frames.

namespace zelData {

using zel::uint32;
using zel::uint64;
using PlainNode = PlainFrame::Node;
using BinaryHeader = SerializedFrame::BinaryHeader;

namespace {

using NodeType = PlainFrame::Type;

/// Looks at all nodes below one, for the first fault.
class FaultFinder {
public:
    explicit FaultFinder(bool isKeyFrame) : m_isKeyFrame(isKeyFrame) {}

    zel::String find(const PlainNode& root) {
        visit(root);
        if (!m_fault.empty())
            return m_fault;
        std::sort(m_places.begin(), m_places.end());
        for (zel::size_t i = 1; i < m_places.size(); ++i)
            if (m_places[i - 1].first + m_places[i - 1].second > m_places[i].first)
                return zel::String::format(
                    "the elements of two nodes overlap at byte %llu of the data segment",
                    static_cast<unsigned long long>(m_places[i].first));
        return {};
    }

private:
    // NOLINTNEXTLINE(misc-no-recursion): MaxDepth bounds it
    void visit(const PlainNode& node) {
        if (node.hasChildren()) {
            for (const PlainNode& child : node.children) {
                m_path.push_back(&child);
                visit(child);
                m_path.pop_back();
            }
        } else if (node.numBytes != 0) {
            m_places.emplace_back(node.offset, node.numBytes);
        }
        const char* fault = nullptr;
        if (!node.hasChildren())
            fault = faultOfElements(node);
        else if (node.type == NodeType::PartialBufferType)
            fault = m_isKeyFrame ? "a key frame holds a partial buffer" : faultOfPartial(node);
        else if (node.type == NodeType::CustomBufferType)
            fault = faultOfParts(node);
        if (fault != nullptr && m_fault.empty())
            m_fault = toldPathOf(m_path) + ": " + fault;
    }

    const char* faultOfElements(const PlainNode& node) {
        if (node.format != m_lastName) { // most nodes have that of the one ahead
            m_lastName = node.format;
            m_lastFormat = findFormat(node.format.c_str());
        }
        return node.numElements != 0 && m_lastFormat != nullptr &&
                       m_lastFormat->getSize() != node.elementSize()
                   ? "its elements have another size than those of its format"
                   : nullptr;
    }

    static const char* faultOfPartial(const PlainNode& node) {
        const PlainNode* index = node.find("index");
        const PlainNode* data = node.find("data");
        if (index == nullptr || data == nullptr || node.children.size() != 2)
            return "the partial buffer has other children than index and data";
        if (index->type != NodeType::BufferType || index->numElements != node.numElements ||
            data->numElements != node.numElements)
            return "the partial buffer has other numbers of places and elements than it tells";
        const uint64 size = index->elementSize();
        if (node.numElements != 0 && size != sizeof(uint64) && size != sizeof(uint32))
            return "the places of the partial buffer are no numbers";
        uint64 least = 0;
        for (uint64 i = 0; index->data && i < index->numElements; ++i) {
            uint64 place = 0; // the machine's order of bytes is the file's, and little endian
            std::memcpy(&place, index->bytes() + i * size, size);
            if (place < least || place >= node.fullSize)
                return "the places of the partial buffer do not rise, or lie outside of the whole";
            least = place + 1;
        }
        return nullptr;
    }

    static const char* faultOfParts(const PlainNode& node) {
        const PlainNode* pool = node.find("characters");
        if (pool == nullptr)
            pool = node.find("elements");
        if (node.find("range") == nullptr && (node.find("id") == nullptr || node.find("storage") == nullptr))
            return "a part of the buffer lacks";
        for (const PlainNode& part : node.children) {
            if (&part == pool)
                continue;
            if (part.type != NodeType::BufferType || part.numElements != node.numElements)
                return "a part of the buffer has another number of elements";
            if (std::string_view(part.name.c_str()) == "range" && faultOfRanges(part, pool))
                return "a range lies outside of what it is one of";
        }
        return nullptr;
    }
    static bool faultOfRanges(const PlainNode& part, const PlainNode* pool) {
        if (part.elementSize() != 2 * sizeof(uint32))
            return true;
        for (uint64 i = 0; part.data && i < part.numElements; ++i) {
            uint32 range[2];
            std::memcpy(range, part.bytes() + i * sizeof(range), sizeof(range));
            if (range[0] > range[1] || (pool != nullptr && range[1] > pool->numElements))
                return true;
        }
        return false;
    }

    bool m_isKeyFrame;
    zel::Name m_lastName;
    const Format* m_lastFormat = nullptr;
    zel::String m_fault;
    std::vector<const PlainNode*> m_path;
    std::vector<std::pair<uint64, uint64>> m_places;
};

} // namespace

zel::String PlainFrame::findFault() const {
    return FaultFinder(m_record.isKeyFrame != 0).find(m_root);
}

// The way into bytes

class PlainFrame::Writer {
public:
    explicit Writer(const Names& names) : m_names(names) {
        for (uint32 i = 0; i < names.size(); ++i)
            m_ids.emplace(names[i].c_str(), i);
    }

    void write(const PlainFrame& frame, zel::ref_ptr<BinaryData>& header, zel::ref_ptr<BinaryData>& segment) {
        put(static_cast<uint32>(m_names.size()));
        put(uint32{0});
        for (const zel::Name& name : m_names) {
            const std::string_view text(name.c_str());
            put(static_cast<uint32>(text.size()));
            append(m_header, text.data(), text.size());
        }
        put(BinaryHeader::EndTag);
        append(m_header, frame.m_events.data(), frame.m_events.size());
        write(frame.m_root);

        BinaryHeader::Frame record = frame.m_record;
        record.isKeyFrame = 1;
        record.headerSize = sizeof(record) + m_header.size();
        record.dataSize = m_segment.size();
        std::vector<zel::uint8> all;
        append(all, &record, sizeof(record));
        append(all, m_header.data(), m_header.size());
        header = BinaryData::copy(all.data(), all.size());
        segment = BinaryData::copy(m_segment.data(), m_segment.size());
    }

private:
    using Bytes = std::vector<zel::uint8>;

    static void append(Bytes& bytes, const void* data, zel::size_t numBytes) {
        const auto* begin = static_cast<const zel::uint8*>(data);
        bytes.insert(bytes.end(), begin, begin + numBytes);
    }
    void put(uint32 number) { append(m_header, &number, sizeof(number)); }
    /// The numbers of buffers may have grown.
    void putNumber(uint64 number) {
        if (number > 0xFFFFFFFFU)
            throw std::runtime_error("a node does not fit into the fields of 32 bits");
        put(static_cast<uint32>(number));
    }
    void putName(const zel::Name& name) {
        put(name.empty() ? BinaryHeader::EmptyName : m_ids.at(name.c_str()));
    }

    // NOLINTNEXTLINE(misc-no-recursion): MaxDepth bounds it
    void write(const PlainNode& node) {
        put(node.type);
        put(node.id);
        putName(node.name);
        if (!node.hasChildren()) {
            const uint64 alignment = std::clamp<uint64>(node.elementSize(), 1, 128);
            m_segment.resize((m_segment.size() + alignment - 1) / alignment * alignment);
            putName(node.format);
            putNumber(node.numBytes);
            putNumber(m_segment.size());
            if (node.type == NodeType::BufferType)
                putNumber(node.numElements);
            append(m_segment, node.bytes(), node.numBytes);
            return;
        }
        put(static_cast<uint32>(node.children.size()));
        if (node.type != NodeType::ComponentType) {
            putName(node.format);
            putNumber(node.numElements);
        }
        if (node.type == NodeType::PartialBufferType || node.type == NodeType::EntityStorageType)
            putNumber(node.fullSize);
        for (const PlainNode& child : node.children)
            write(child);
        put(BinaryHeader::EndTag);
    }

    const Names& m_names;
    std::unordered_map<std::string_view, uint32> m_ids;
    Bytes m_header;
    Bytes m_segment;
};

void PlainFrame::write(const Names& names,
                       zel::ref_ptr<BinaryData>& header,
                       zel::ref_ptr<BinaryData>& segment) const {
    Writer(names).write(*this, header, segment);
}

// The way into frames

namespace {

const Format* formatOf(const PlainNode& node, bool& isKnown) {
    const Format* format = findFormat(node.format.c_str());
    // Of no elements, none has a size that could tell otherwise.
    const bool fits = node.numElements == 0 || node.hasChildren() || format == nullptr ||
                      format->getSize() == node.elementSize();
    isKnown = format != nullptr && fits;
    return isKnown ? format : getFormat("UInt:8bit");
}

/// @return null for one that is made of parts, and whose format is not known
// NOLINTNEXTLINE(misc-no-recursion): MaxDepth bounds it
zel::ref_ptr<SerializedFrame::Node> convert(const PlainNode& node) {
    using Plain = SerializedFrame;
    bool isKnown = true;
    zel::ref_ptr<Plain::Component> parent;
    switch (node.type) {
    case NodeType::ValueType:
    case NodeType::BufferType: {
        const Format* format = formatOf(node, isKnown);
        if (node.type == NodeType::ValueType && isKnown)
            return zel::ref_ptr<Plain::Node>(
                new Plain::Value(node.id, node.name, format, node.offset, node.data.get()));
        return zel::ref_ptr<Plain::Node>(new Plain::Buffer(node.id,
                                                           node.name,
                                                           format,
                                                           isKnown ? node.numElements : node.numBytes,
                                                           node.offset,
                                                           node.data.get()));
    }
    case NodeType::CustomBufferType:
        parent = new Plain::CustomBuffer(node.id, node.name, formatOf(node, isKnown), node.numElements);
        break;
    case NodeType::PartialBufferType:
        parent = new Plain::PartialBuffer(
            node.id, node.name, formatOf(node, isKnown), node.numElements, node.fullSize);
        break;
    case NodeType::ComponentType:
        parent = new Plain::Component(node.id, node.name);
        break;
    case NodeType::EntityStorageType: {
        EntityModel* model = node.format.empty() ? nullptr : findForeignEntity(node.format);
        parent = new Plain::EntityStorage(node.id, node.name, model, node.numElements, node.fullSize);
        break;
    }
    }
    if (!isKnown)
        return {};
    for (const PlainNode& child : node.children)
        if (const auto made = convert(child))
            parent->addChild(made.get());
    return zel::ref_ptr<Plain::Node>(parent.get());
}

/// Takes what is wanted: components and storages are ways to it. Nobody wants what has a path longer than
/// any that can be written down.
/// @param path  of the source, which this is after the call again
// NOLINTNEXTLINE(misc-no-recursion)
void select(const PlainNode& source, zel::String& path, const PlainFrame::Wants& wants, PlainNode& target) {
    constexpr zel::size_t longestPath = zel::size_t{1} << 20;
    const zel::size_t length = path.size();
    for (const PlainNode& child : source.children) {
        path.resize(length);
        const std::string_view name(child.name.c_str());
        if (length + 1 + name.size() > longestPath)
            continue;
        path.append(length == 0 ? "" : ".").append(name);
        const bool isWay = child.type == NodeType::ComponentType || child.type == NodeType::EntityStorageType;
        if (!isWay && wants(path)) {
            target.children.push_back(child);
        } else if (isWay) {
            PlainNode part = child;
            part.children.clear();
            select(child, path, wants, part);
            if (!part.children.empty() || wants(path))
                target.children.push_back(std::move(part));
        }
    }
    path.resize(length);
}

// NOLINTNEXTLINE(misc-no-recursion): MaxDepth bounds it
void count(const PlainNode& node, uint64& numNodes, uint64& numBytes) {
    ++numNodes;
    numBytes += node.numBytes;
    for (const PlainNode& child : node.children)
        count(child, numNodes, numBytes);
}

} // namespace

PlainFrame PlainFrame::getPart(const Wants& wants) const {
    PlainFrame part;
    part.m_record = m_record;
    part.m_endOfElements = m_endOfElements;
    zel::String path;
    select(m_root, path, wants, part.m_root);
    count(part.m_root, part.m_numNodes, part.m_numBytes);
    return part;
}

Frame* PlainFrame::createFrame(const Wants& wants) const {
    PlainNode selected;
    zel::String path;
    select(m_root, path, wants, selected);
    const auto root = convert(selected);
    zel::ref_ptr<Frame> frame(
        SerializedFrame::createFrame(static_cast<const SerializedFrame::Component*>(root.get()),
                                     m_record.index,
                                     m_record.timeStamp,
                                     m_record.timeStep,
                                     SerializedFrame::OnFault::Throw));
    frame->setId(m_record.id);
    frame->setKeyFrame(m_record.isKeyFrame != 0);
    return frame.release_nodelete();
}

} // namespace zelData
