#include "Series.h"

#include "Command.h"

#include <zel/Name.h>
#include <zel/Path.h>
#include <zelData/Buffer.h>
#include <zelData/Format.h>
#include <zelData/Type.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace tool {

using zelData::BinaryData;
using zelData::FrameTranspose;
using zelData::PlainElements;
using zelData::PlainFrame;
using zelData::PlainJournal;
using Node = PlainFrame::Node;

Series::Series(std::string name, FrameTranspose::Track* track, std::size_t numRows)
    : m_name(std::move(name)) {
    const zelData::Buffer* buffer = track->getBuffer();
    if (buffer == nullptr || track->getFirstRow() != 0)
        throw std::runtime_error("nothing stands at '" + m_name + "' in the first frame");
    m_numElements = numRows == 0 ? 1 : buffer->size() / numRows;
    const std::string format = buffer->getFormat()->fullName();
    const zel::String type = buffer->getFormat()->getType()->getName().str();
    for (std::size_t i = 0; i < buffer->size() && (type == "String" || type == "Name"); ++i)
        m_texts.push_back(type == "String" ? buffer->data<zel::String>()[i].c_str()
                                           : buffer->data<zel::Name>()[i].c_str());
    if (m_texts.empty() && !buffer->getFormat()->hasPlainElements())
        throw std::runtime_error("'" + m_name + "' is neither a number nor a text, but of " + format);
    m_node = std::make_unique<Node>();
    m_node->type = PlainFrame::Type::BufferType;
    if (m_texts.empty()) {
        m_node->format = format;
        m_node->numElements = buffer->size();
        m_node->numBytes = buffer->size() * buffer->getElementSize();
        m_node->data = BinaryData::copy(buffer->getPtr(), m_node->numBytes);
    }
    m_elements = std::make_unique<PlainElements>(*m_node);
}

std::size_t Series::width() const {
    return m_numElements * (isNumber() ? m_elements->numNumbers() : 1);
}

std::string Series::text(std::size_t row, std::size_t k) const {
    if (!m_texts.empty())
        return m_texts[row * m_numElements + k];
    const std::size_t each = std::max<std::size_t>(1, m_elements->numNumbers());
    return m_elements->text(row * m_numElements + k / each, static_cast<zel::uint32>(k % each));
}

double Series::number(std::size_t row, std::size_t k) const {
    const std::size_t each = m_elements->numNumbers();
    return m_elements->number(row * m_numElements + k / each, static_cast<zel::uint32>(k % each));
}

namespace {

/// What a path of the command line leads to.
struct Wanted {
    std::string text;
    zel::Path path;      // of the value, or of the storage
    zel::Name attribute; // empty for a value
    zel::uint32 id = 0;
};

Wanted parse(const std::string& text) {
    const auto at = text.rfind('@');
    if (at == std::string::npos)
        return {text, zel::Path(text), {}, 0};
    const zel::Path column(text.substr(0, at));
    const unsigned long id = parseNumber("the id in '" + text + "'", text.substr(at + 1));
    if (column.base().empty() || id >= 0xFFFFFFFFUL)
        throw UsageError("'" + text + "' is not of the form STORAGE.ATTRIBUTE@ID");
    return {text, column.base(), column.back(), static_cast<zel::uint32>(id)};
}

/// The number at the place of a table of ids.
bool numberAt(const Node* table, unsigned long place, unsigned long& number) {
    if (table == nullptr || !table->data || table->type != PlainFrame::Type::BufferType ||
        place >= table->numElements)
        return false;
    const unsigned long size = table->elementSize();
    if (size != 4 && size != 8)
        return false;
    number = 0;
    std::memcpy(&number, table->bytes() + place * size, size);
    return true;
}

/// The series ends the process for an instance that does not live: asked ahead of it.
void requireThere(const PlainFrame& frame, const Wanted& wanted) {
    const std::string inFrame = " in frame " + std::to_string(frame.getRecord().index);
    const Node* node = frame.find(wanted.path);
    if (node == nullptr)
        throw std::runtime_error("nothing stands at '" + wanted.path.str() + "'" + inFrame);
    if (wanted.attribute.empty()) {
        const bool isSingle = node->type == PlainFrame::Type::ValueType ||
                              ((node->type == PlainFrame::Type::BufferType ||
                                node->type == PlainFrame::Type::CustomBufferType) &&
                               node->numElements == 1);
        const std::size_t dot = wanted.text.rfind('.');
        const Node* parent =
            dot == std::string::npos ? nullptr : frame.find(zel::Path(wanted.text.substr(0, dot).c_str()));
        if (!isSingle && parent != nullptr && parent->type == PlainFrame::Type::EntityStorageType)
            throw std::runtime_error("'" + wanted.text + "' is a column: '" + wanted.text +
                                     "@ID' is that of the instance with the id");
        if (!isSingle)
            throw std::runtime_error("'" + wanted.text + "' is no single value" + inFrame);
        return;
    }
    if (node->type != PlainFrame::Type::EntityStorageType)
        throw std::runtime_error("'" + wanted.path.str() + "' is no storage" + inFrame);
    const Node* column = node->find(wanted.attribute);
    if (column == nullptr)
        throw std::runtime_error("'" + wanted.path.str() + "' has no attribute '" + wanted.attribute.str() +
                                 "'" + inFrame);
    unsigned long index = 0;
    unsigned long id = 0;
    if (!numberAt(node->find("_idToIndex"), wanted.id, index) || index >= node->numElements ||
        (numberAt(node->find("_indexToId"), index, id) && id != wanted.id))
        throw std::runtime_error("'" + wanted.path.str() + "' has no instance " + std::to_string(wanted.id) +
                                 inFrame);
    if (column->numElements % node->numElements != 0)
        throw std::runtime_error("'" + wanted.text + "' has not as many elements as instances" + inFrame);
}

} // namespace

SeriesTable::SeriesTable(PlainJournal& journal, const std::vector<std::string>& paths) {
    std::vector<Wanted> all;
    all.reserve(paths.size());
    for (const std::string& path : paths)
        all.push_back(parse(path));
    const zel::ref_ptr<FrameTranspose> transpose(new FrameTranspose(false));
    std::vector<FrameTranspose::Track*> tracks;
    tracks.reserve(all.size());
    for (const Wanted& wanted : all)
        tracks.push_back(wanted.attribute.empty()
                             ? static_cast<FrameTranspose::Track*>(transpose->registerTrack(wanted.path))
                             : transpose->registerTrack(wanted.path, wanted.attribute, wanted.id));
    const auto wants = [&all](const zel::String& path) {
        return std::any_of(all.begin(), all.end(), [&path](const Wanted& wanted) {
            const std::string storage = wanted.path.str();
            return wanted.attribute.empty() ? path == storage
                                            : path == storage + "." + wanted.attribute.str() ||
                                                  path == storage + "._idToIndex" || path == storage;
        });
    };
    for (std::size_t i = 0; i < journal.getFrames().size(); ++i) {
        const PlainFrame& complete = journal.readComplete(i);
        for (const Wanted& wanted : all)
            requireThere(complete, wanted);
        const zel::ref_ptr<zelData::Frame> frame(complete.createFrame(wants));
        transpose->writeFrame(frame.get());
        m_frames.push_back(complete.getRecord().index);
        m_times.push_back(complete.getRecord().timeStamp);
    }
    if (m_frames.empty())
        throw std::runtime_error("'" + journal.getPath() + "' has no frames");
    for (std::size_t i = 0; i < all.size(); ++i)
        m_series.emplace_back(all[i].text, tracks[i], m_frames.size());
}

} // namespace tool
