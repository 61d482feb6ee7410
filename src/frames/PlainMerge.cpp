#include "FrameNames.h"
#include "PlainPath.h"

#include <zelData/PlainFrame.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <unordered_map>

// One frame applied onto another, without knowing what the elements are.

namespace zelData {

using zel::uint32;
using zel::uint64;
using zel::uint8;
using PlainNode = PlainFrame::Node;

namespace {

using NodeType = PlainFrame::Type;

/// The part of a buffer in parts that has no element for each of the buffer's, but what those point into.
bool isPool(const PlainNode& part) {
    const std::string_view name(part.name.c_str());
    return name == "characters" || name == "elements";
}

/// Whether the ranges of texts and arrays stand in the part.
bool isRange(const PlainNode& part) {
    return std::string_view(part.name.c_str()) == "range" && part.elementSize() == 2 * sizeof(uint32);
}

/// The elements of a node and all below it.
// NOLINTNEXTLINE(misc-no-recursion): as deep as the frame that was read
uint64 countBytes(const PlainNode& node) {
    uint64 count = node.numBytes;
    for (const PlainNode& child : node.children)
        count += countBytes(child);
    return count;
}

/// These are as long as the capacity, or are told in whole.
bool isTableOfIds(const PlainNode& column) {
    const std::string_view name(column.name.c_str());
    return name == "_idToIndex" || name == "_indexToId";
}

/// Where the children of a node stand, for those of another: of several with one name, the first.
class Places {
public:
    Places(const PlainNode& source, const PlainNode& target) {
        constexpr zel::size_t few = 16;
        if (source.children.size() <= few || target.children.size() <= few)
            return;
        m_isMap = true;
        for (zel::size_t i = 0; i < target.children.size(); ++i)
            add(target.children[i].name, i);
    }
    void add(const zel::Name& name, zel::size_t place) {
        if (m_isMap)
            m_places.emplace(name.c_str(), place);
    }
    /// @return null if there was none of the name
    PlainNode* find(const zel::Name& name, PlainNode& target) const {
        if (!m_isMap)
            return const_cast<PlainNode*>(target.find(name)); // NOLINT: of a node that may change
        const auto place = m_places.find(name.c_str());
        return place == m_places.end() ? nullptr : &target.children[place->second];
    }

private:
    bool m_isMap = false;
    std::unordered_map<std::string_view, zel::size_t> m_places;
};

} // namespace

class PlainFrame::Merger {
public:
    /// @param numBytes  of the elements of the whole frame
    Merger(uint64 maxBytes, uint64& numBytes) : m_maxBytes(maxBytes), m_numBytes(numBytes) {}

    // NOLINTNEXTLINE(misc-no-recursion): as deep as the frame that was read
    void mergeChildren(const PlainNode& source, PlainNode& target) {
        Places places(source, target);
        for (const PlainNode& child : source.children) {
            const zel::size_t count = target.children.size();
            m_path.push_back(&child);
            mergeChild(child, target, places.find(child.name, target));
            if (target.children.size() != count)
                places.add(child.name, count);
            m_path.pop_back();
        }
    }

private:
    [[noreturn]] void fail(const char* what) const {
        throw std::runtime_error(zel::String::format("%s: %s", toldPathOf(m_path).c_str(), what));
    }
    void put(const PlainNode& source, PlainNode& target) {
        m_numBytes += countBytes(source);
        target.children.push_back(source);
    }

    // NOLINTNEXTLINE(misc-no-recursion)
    void mergeChild(const PlainNode& source, PlainNode& target, PlainNode* place) {
        if (place == nullptr) {
            put(source, target);
            return;
        }
        PlainNode& existing = *place;
        switch (source.type) {
        case NodeType::ValueType:
        case NodeType::BufferType:
        case NodeType::CustomBufferType:
            if (source.name == incrementalName()) {
                put(source, target);
                return;
            }
            if (existing.format != source.format || isGroup(existing) ||
                (existing.type == NodeType::ValueType) != (source.type == NodeType::ValueType))
                fail("the node does not fit to that of the frames ahead");
            m_numBytes += countBytes(source) - countBytes(existing);
            existing = source;
            return;
        case NodeType::PartialBufferType:
            if (existing.format != source.format || isGroup(existing) || existing.type == NodeType::ValueType)
                fail("the partial buffer does not fit to what the frames ahead hold");
            if (existing.type == NodeType::PartialBufferType)
                fail("the partial buffer follows on none in whole");
            scatter(source, existing);
            return;
        case NodeType::EntityStorageType:
            if (existing.type != source.type || existing.format != source.format)
                fail("the storage does not fit to that of the frames ahead");
            resizeColumns(source, existing);
            mergeChildren(source, existing);
            return;
        case NodeType::ComponentType:
            if (!isGroup(existing))
                fail("the component does not fit to what the frames ahead hold");
            mergeChildren(source, existing);
            return;
        }
    }

    static bool isGroup(const PlainNode& node) {
        return node.type == NodeType::ComponentType || node.type == NodeType::EntityStorageType;
    }

    /// Gives the node bytes of its own, as many as these elements take.
    void resize(PlainNode& node, uint64 numElements) {
        if (node.type == NodeType::CustomBufferType) {
            for (PlainNode& part : node.children)
                if (!isPool(part))
                    resize(part, numElements);
            node.numElements = numElements;
            return;
        }
        if (node.type != NodeType::BufferType)
            return;
        const uint64 size = node.elementSize();
        if (size != 0 && numElements > m_maxBytes / size)
            fail("the buffer has more elements than such a file can hold");
        replaceBytes(node, numElements * size, numElements);
    }
    void replaceBytes(PlainNode& node, uint64 numBytes, uint64 numElements) {
        if (node.data && node.data->referenceCount() == 1 && numBytes == node.numBytes) {
            node.numElements = numElements;
            return;
        }
        // Many nodes of a file can be made to share their bytes, or to grow.
        if (numBytes > m_maxBytes || m_numBytes - node.numBytes > m_maxBytes - numBytes)
            fail("the frame has more elements than such a file can hold");
        m_numBytes += numBytes - node.numBytes;
        zel::ref_ptr<BinaryData> data(new BinaryData(numBytes));
        const uint64 kept = node.data ? std::min(numBytes, node.numBytes) : 0;
        if (kept != 0)
            std::memcpy(data->getData(), node.bytes(), kept);
        if (numBytes > kept)
            std::memset(data->getData() + kept, 0, numBytes - kept);
        node.data = data.get();
        node.offset = 0;
        node.numBytes = numBytes;
        node.numElements = numElements;
    }

    void resizeColumns(const PlainNode& source, PlainNode& storage) {
        for (PlainNode& column : storage.children) {
            if (isTableOfIds(column) || column.hasChildren() != (column.type == NodeType::CustomBufferType))
                continue;
            const uint64 each = storage.numElements == 0 ? 0 : column.numElements / storage.numElements;
            if (each * source.numElements != column.numElements)
                resize(column, each * source.numElements);
        }
        storage.numElements = source.numElements;
        storage.fullSize = source.fullSize;
    }

    /// Writes the elements of a partial buffer into one in whole.
    void scatter(const PlainNode& source, PlainNode& target) {
        const PlainNode* index = source.find("index");
        const PlainNode* data = source.find("data");
        if (index == nullptr || data == nullptr)
            fail("the partial buffer lacks a part");
        resize(target, source.fullSize);
        if (target.type == NodeType::BufferType && data->type == NodeType::BufferType)
            scatter(*index, *data, target, 0);
        else if (target.type == NodeType::CustomBufferType && data->type == NodeType::CustomBufferType)
            scatterParts(*index, *data, target);
        else
            fail("the partial buffer is made of other parts than the whole");
    }

    /// @param shift  is added to ranges
    void scatter(const PlainNode& index, const PlainNode& data, PlainNode& target, uint32 shift) {
        const uint64 size = data.elementSize();
        if (index.numElements != data.numElements || index.elementSize() != sizeof(uint64) || !data.data ||
            !index.data || size != target.elementSize())
            fail("the elements do not fit to the whole");
        replaceBytes(target, target.numBytes, target.numElements); // nobody else's
        auto* bytes = const_cast<uint8*>(target.bytes());          // NOLINT: made here
        for (uint64 i = 0; i < index.numElements; ++i) {
            uint64 place = 0;
            std::memcpy(&place, index.bytes() + i * sizeof(place), sizeof(place));
            if (place >= target.numElements)
                fail("an element lies outside of the whole");
            uint8* element = bytes + place * size;
            std::memcpy(element, data.bytes() + i * size, size);
            if (shift == 0)
                continue;
            uint32 range[2];
            std::memcpy(range, element, sizeof(range));
            if (range[0] > 0xFFFFFFFFU - shift || range[1] > 0xFFFFFFFFU - shift)
                fail("a range ends above 32 bits");
            range[0] += shift;
            range[1] += shift;
            std::memcpy(element, range, sizeof(range));
        }
    }

    /// What the new elements point into is put behind what is there.
    void scatterParts(const PlainNode& index, const PlainNode& data, PlainNode& target) {
        uint64 shift = 0;
        for (const PlainNode& part : data.children) {
            if (!isPool(part))
                continue;
            PlainNode* pool = findPart(target, part.name);
            if (pool == nullptr) {
                put(part, target);
                continue;
            }
            if (pool->type != NodeType::BufferType || part.type != NodeType::BufferType ||
                pool->format != part.format || pool->elementSize() != part.elementSize() || !part.data)
                fail("what the elements point into does not fit to the whole");
            shift = pool->numElements;
            const uint64 numBytes = pool->numBytes;
            if (numBytes + part.numBytes > m_maxBytes || shift + part.numElements > 0xFFFFFFFFU)
                fail("the buffer has more elements than such a file can hold");
            replaceBytes(*pool, numBytes + part.numBytes, shift + part.numElements);
            if (part.numBytes != 0) // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): made above
                std::memcpy(const_cast<uint8*>(pool->bytes()) + numBytes, part.bytes(), part.numBytes);
        }
        for (const PlainNode& part : data.children) {
            if (isPool(part))
                continue;
            PlainNode* whole = findPart(target, part.name);
            if (whole == nullptr || whole->type != NodeType::BufferType || part.type != NodeType::BufferType)
                fail("the partial buffer is made of other parts than the whole");
            scatter(index, part, *whole, isRange(part) ? static_cast<uint32>(shift) : 0);
        }
    }
    static PlainNode* findPart(PlainNode& node, const zel::Name& name) {
        return const_cast<PlainNode*>(node.find(name)); // NOLINT: of a node that may change
    }

    uint64 m_maxBytes;
    uint64& m_numBytes;
    std::vector<const PlainNode*> m_path;
};

void PlainFrame::merge(const PlainFrame& other, uint64 maxBytes) {
    if (other.m_record.isKeyFrame != 0) {
        m_root = other.m_root;
        m_numBytes = other.m_numBytes;
    } else {
        Merger(maxBytes, m_numBytes).mergeChildren(other.m_root, m_root);
    }
    const bool isKeyFrame = m_record.isKeyFrame != 0 || other.m_record.isKeyFrame != 0;
    m_record = other.m_record;
    m_record.isKeyFrame = isKeyFrame ? 1 : 0;
    m_numNodes = other.m_numNodes;
    m_numEvents = other.m_numEvents;
    m_events = other.m_events;
    m_endOfElements = other.m_endOfElements;
}

} // namespace zelData
