#include "JournalSeries.h"

#include "data/FormatLookup.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace zelNet {

using zel::size_t;
using zel::uint32;
using zel::uint64;
using zelData::PlainFrame;
using zelData::PlainJournal;
using Node = PlainFrame::Node;

namespace {

constexpr double None = std::numeric_limits<double>::quiet_NaN();
/// Numbers of one datum in one row.
constexpr uint64 MaxComponents = 1024;

const char* const IdToIndex = "_idToIndex";
const char* const IndexToId = "_indexToId";

/// @param parent  becomes the node above it
/// @return null without one
const Node* findNode(const PlainFrame& frame, const std::vector<zel::Name>& names, const Node*& parent) {
    const Node* node = &frame.getRoot();
    for (const zel::Name& name : names) {
        parent = node;
        node = node->find(name);
        if (node == nullptr)
            break;
    }
    return node;
}

bool isPlain(const Node& node) {
    return !node.hasChildren() && node.bytes() != nullptr && node.numElements != 0;
}

/// Whether the node is one element for each instance of a storage.
bool isColumn(const Node& node, const Node& parent) {
    return parent.type == PlainFrame::Type::EntityStorageType && node.name != zel::Name(IdToIndex) &&
           node.name != zel::Name(IndexToId);
}

/// An element of a table of ids.
std::optional<uint64> numberAt(const Node* table, uint64 place) {
    if (table == nullptr || !isPlain(*table) || place >= table->numElements)
        return {};
    uint64 wide = 0;
    const uint64 size = table->elementSize();
    if (size != sizeof(uint64) && size != sizeof(uint32))
        return {};
    std::memcpy(&wide, table->bytes() + place * size, size); // little endian
    return wide;
}

/// Where the instance stands in the storage; nothing while it is not alive.
std::optional<uint64> placeOf(const Node& storage, uint64 id) {
    const auto place = numberAt(storage.find(zel::Name(IdToIndex)), id);
    if (!place || *place >= storage.numElements)
        return {};
    // A free id has a place, too.
    return numberAt(storage.find(zel::Name(IndexToId)), *place) == id ? place : std::nullopt;
}

zel::String joined(const std::vector<zel::Name>& names, size_t count) {
    zel::String path;
    for (size_t i = 0; i < count; ++i)
        path.append(i == 0 ? "" : ".").append(names[i].c_str());
    return path;
}

} // namespace

JournalSeries::JournalSeries(std::shared_ptr<const PlainJournal> journal,
                             const PlainFrame& present,
                             const std::vector<SeriesItem>& items,
                             const Range& range,
                             uint64 points)
    : m_journal(std::move(journal)), m_sources(items.size()), m_columns(items.size()) {
    m_end = m_journal->getFrames().size();
    while (m_begin != m_end && timeOf(m_begin) < range.start)
        ++m_begin;
    while (m_begin != m_end && timeOf(m_end - 1) > range.end)
        --m_end;
    m_framesPerPoint = std::max<uint64>((getNumFrames() + points - 1) / points, 1);
    size_t numNumbers = 0;
    for (size_t i = 0; i < items.size(); ++i) {
        try {
            prepare(present, items[i], m_sources[i], m_columns[i]);
        } catch (const std::runtime_error& error) {
            m_columns[i].error = error.what();
            m_columns[i].components = 0;
        }
        numNumbers += m_columns[i].components;
    }
    m_row.resize(numNumbers);
    m_extents.resize(m_framesPerPoint == 1 ? 0 : numNumbers);
    m_rowSize += numNumbers * sizeof(double);
    m_next = numNumbers == 0 || m_begin == m_end ? m_end : m_journal->keyFrameOf(m_begin);
}

void JournalSeries::prepare(const PlainFrame& present,
                            const SeriesItem& item,
                            Source& source,
                            Column& column) {
    if (!item.error.empty())
        throw std::runtime_error(item.error);
    const Node* parent = nullptr;
    const Node* node = findNode(present, item.names, parent);
    if (node == nullptr || parent == nullptr)
        throw std::runtime_error("'" + item.path + "' is not in the present frame");
    if (!node->hasChildren()) {
        source.format = node->format;
        source.layout = ElementLayout(zelData::findFormat(node->format.c_str()));
    }
    if (!isPlain(*node) || source.layout.components == 0)
        throw std::runtime_error("'" + item.path + "' is not made of numbers");
    uint64 components = source.layout.components;
    source.names = item.names;
    source.isInstance = isColumn(*node, *parent);
    if (source.isInstance && parent->numElements != 0)
        components *= node->numElements / parent->numElements;
    if (components == 0 || components > MaxComponents)
        throw std::runtime_error("'" + item.path + "' has more than 1024 numbers, or none");
    if (node->type == PlainFrame::Type::BufferType) {
        if (!item.index && !(source.isInstance && item.id))
            throw std::runtime_error("'" + item.path + "' is a buffer: 'index' must tell the element");
        source.index = item.index.value_or(0);
        if (source.isInstance && item.id) {
            source.index = *item.id;
        } else if (source.isInstance) {
            const auto id = numberAt(parent->find(zel::Name(IndexToId)), source.index);
            if (!id || source.index >= parent->numElements)
                throw std::runtime_error("'" + item.path + "' has no instance " +
                                         std::to_string(source.index));
            source.index = *id;
        } else if (source.index >= node->numElements)
            throw std::runtime_error("'" + item.path + "' has no element " + std::to_string(source.index));
    }
    column.components = static_cast<uint32>(components);
    m_wanted.insert(joined(item.names, item.names.size()));
    if (!source.isInstance)
        return;
    column.id = source.index;
    const zel::String storage = joined(item.names, item.names.size() - 1);
    m_wanted.insert(storage); // its size
    m_wanted.insert(storage + "." + IdToIndex);
    m_wanted.insert(storage + "." + IndexToId);
}

void JournalSeries::readRow(Source& source, const Column& column, double* row) const {
    std::fill_n(row, column.components, None);
    const Node* parent = nullptr;
    const Node* node = findNode(m_state, source.names, parent);
    if (node == nullptr || !isPlain(*node))
        return;
    if (node->format != source.format) {
        source.format = node->format;
        source.layout = ElementLayout(zelData::findFormat(node->format.c_str()));
    }
    uint64 begin = node->type == PlainFrame::Type::ValueType ? 0 : source.index;
    uint64 count = 1;
    if (source.isInstance) {
        const auto place = isColumn(*node, *parent) ? placeOf(*parent, source.index) : std::nullopt;
        if (!place)
            return;
        count = node->numElements / parent->numElements;
        begin = *place * count;
    }
    const uint64 components = source.layout.components;
    const uint64 size = source.layout.componentSize;
    const uint64 elementSize = node->elementSize();
    if (begin >= node->numElements || count > node->numElements - begin ||
        count * components != column.components || components * size > elementSize)
        return;
    const zel::uint8* element = node->bytes() + begin * elementSize;
    for (uint64 i = 0; i < count; ++i, element += elementSize)
        for (uint64 k = 0; k < components; ++k)
            *row++ = source.layout.numberToReal(element + k * size);
}

void JournalSeries::readNext() {
    const auto isWanted = [this](const zel::String& path) { return m_wanted.contains(path); };
    try {
        m_state.merge(m_journal->readPart(m_next, isWanted, m_names), m_journal->getMaxBytes());
    } catch (const std::runtime_error& error) {
        endGroup();
        m_failure = error.what();
        m_next = m_end;
        return;
    }
    const size_t place = m_next++;
    if (place < m_begin)
        return;
    double* row = m_row.data();
    for (size_t i = 0; i < m_sources.size(); row += m_columns[i++].components)
        if (m_columns[i].components != 0)
            readRow(m_sources[i], m_columns[i], row);
    if (m_framesPerPoint == 1) {
        addRow(timeOf(place));
        return;
    }
    addToGroup();
    if (m_groupSize == 2 * m_framesPerPoint || m_next == m_end)
        endGroup();
}

void JournalSeries::addRow(double time) {
    m_times.push_back(time);
    const double* row = m_row.data();
    for (Column& column : m_columns) {
        column.rows.insert(column.rows.end(), row, row + column.components);
        row += column.components;
    }
}

void JournalSeries::addToGroup() {
    for (size_t i = 0; i < m_row.size(); ++i) {
        Extent& extent = m_extents[i];
        const double number = m_row[i];
        if (m_groupSize == 0 || std::isnan(extent.low)) {
            extent = {number, number, true};
        } else if (number < extent.low) {
            extent.low = number;
            extent.isLowFirst = false;
        } else if (number > extent.high) {
            extent.high = number;
            extent.isLowFirst = true;
        }
    }
    ++m_groupSize;
}

void JournalSeries::endGroup() {
    if (m_groupSize == 0)
        return;
    const size_t first = m_next - m_groupSize;
    const size_t numRows = m_groupSize == 1 ? 1 : 2;
    for (size_t k = 0; k < numRows; ++k) {
        for (size_t i = 0; i < m_row.size(); ++i)
            m_row[i] = (k == 0) == m_extents[i].isLowFirst ? m_extents[i].low : m_extents[i].high;
        addRow(timeOf(first + k * (m_groupSize / 2)));
    }
    m_groupSize = 0;
}

void JournalSeries::take() {
    m_times.clear();
    for (Column& column : m_columns)
        column.rows.clear();
}

} // namespace zelNet
