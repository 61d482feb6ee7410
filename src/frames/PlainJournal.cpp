#include "FrameRecord.h"
#include "JournalMeta.h"
#include "JournalSums.h"
#include "files/DiskFile.h"

#include <zelData/PlainJournal.h>
#include <zelIO/FileSystem.h>

#include <sys/stat.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

// A journal that is opened to be looked at: its headers, and the frames where nothing is wrong.

namespace zelData {

using zel::uint64;
using zelIO::DiskFile;
using zelIO::FileSystem;

namespace {

constexpr uint64 EndOfHeaders = JournalMeta::JournalHeaderSize + JournalMeta::MaxHeaderSize;
/// Bytes at either end of a frame that tell it from another one: enough, and soon read.
constexpr uint64 SampleSize = uint64{1} << 20;

} // namespace

PlainJournal::PlainJournal(const zel::String& path, Search search) : m_path(path) {
    // Others than regular files may have nothing to read, for ever.
    if (!FileSystem::stat(path, m_data) || !S_ISREG(m_data.st_mode))
        throw std::runtime_error("There is no file '" + path + "'.");
    m_file = std::make_unique<DiskFile>(path, DiskFile::Mode::Read);
    if (!m_file->isOpen() || !m_file->size(m_fileSize))
        throw std::runtime_error("Could not open journal '" + path + "': " + m_file->getReason());
    readHeaders(search);
    m_endOfFrames = m_begin;
    m_searchBudget = (uint64{16} << 20) + 16 * m_fileSize;
    if (search == Search::Scan || (!walk(search) && search == Search::Walk))
        scan();
    sortFaults();
    if (search == Search::Records)
        m_lastSum = sumOfLastFrame();
}

bool PlainJournal::refresh() {
    struct ::stat data {};
    uint64 size = 0;
    if (!FileSystem::stat(m_path, data) || data.st_ino != m_data.st_ino || data.st_dev != m_data.st_dev ||
        !m_file->size(size) || size < m_endOfFrames)
        return false;
    // Whoever goes on from an earlier frame writes others in the place of those behind it, and their records
    // may be alike.
    if (!m_frames.empty() &&
        (!standsAt(*m_file, m_frames.back().offset, m_frames.back().record) || sumOfLastFrame() != m_lastSum))
        return false;
    const auto asItWas = [this,
                          faults = std::exchange(m_faults, {}),
                          session = std::exchange(m_session, nullptr),
                          isClosed = std::exchange(m_isClosed, false),
                          fileSize = std::exchange(m_fileSize, size),
                          begin = m_begin,
                          limit = m_limit] {
        m_faults = faults;
        m_session = session;
        m_isClosed = isClosed;
        m_fileSize = fileSize;
        m_begin = begin;
        m_limit = limit;
        return false;
    };
    const uint64 begin = m_begin;
    try {
        readHeaders(Search::Records);
    } catch (const std::runtime_error&) {
        return asItWas();
    }
    if (m_frames.empty())
        m_endOfFrames = m_begin;
    else if (m_begin != begin)
        return asItWas();
    (void)walk(Search::Records);
    sortFaults();
    m_lastSum = sumOfLastFrame();
    return true;
}

std::optional<zel::uint32> PlainJournal::sumOfLastFrame() const {
    if (m_frames.empty())
        return {};
    const FrameEntry& last = m_frames.back();
    std::vector<zel::uint8> bytes(std::min(last.end() - last.offset, SampleSize));
    zel::uint32 sum = 0;
    for (const uint64 offset : {last.offset, last.end() - bytes.size()}) {
        if (!m_file->readAt(offset, bytes.data(), bytes.size()))
            return {};
        sum = JournalSums::add(sum, bytes.data(), bytes.size());
    }
    return sum;
}

void PlainJournal::sortFaults() {
    std::stable_sort(
        m_faults.begin(), m_faults.end(), [](const Fault& a, const Fault& b) { return a.offset < b.offset; });
}

PlainJournal::~PlainJournal() = default;

void PlainJournal::readHeaders(Search search) {
    m_begin = EndOfHeaders;
    m_limit = m_fileSize;
    JournalMeta meta;
    try {
        meta.read(m_path, false);
    } catch (const std::runtime_error&) {
        if (search != Search::Scan)
            throw std::runtime_error("'" + m_path + "' is no journal.");
        m_beginsAsJournal = false;
        addFault(0, "the file does not begin as a journal");
        return;
    }
    if (!meta.hasSessionHeader()) {
        if (m_fileSize > JournalMeta::JournalHeaderSize)
            addFault(18, "the journal tells of no session");
        else
            m_begin = m_limit = m_fileSize;
        return;
    }
    const zel::ref_ptr<FileJournal::Session> session(
        new FileJournal::Session(FileSystem::getFileWithoutExtension(m_path), m_path, FileJournal::Tolerant));
    try {
        meta.readSessionHeader(m_path);
        const TiXmlElement* root = meta.document.RootElement();
        if (root == nullptr)
            throw std::runtime_error("it is empty");
        session->load(root);
        session->refuseOtherByteOrder();
        session->readPlotData(root->FirstChildElement("Plots"));
        session->readExtraData(root->FirstChildElement("ExtraData"));
    } catch (const std::runtime_error& error) {
        addFault(meta.sessionHeaderOffset,
                 "the session header can not be read: " + zel::String(error.what()));
        return;
    }
    m_session = session;
    if (meta.sessionHeaderOffset != JournalMeta::JournalHeaderSize)
        addFault(18, "the session header does not follow on that of the journal");
    checkSession();
}

void PlainJournal::checkSession() {
    m_isClosed = m_session->getLastFrameIndex() != zel::InvalidIndex;
    const uint64 begin = m_session->getFrameDataOffset();
    const uint64 scene = m_session->getSceneDataOffset();
    if (begin == zel::InvalidIndex) {
        if (m_fileSize > EndOfHeaders || m_session->getNumFrames() != 0)
            addFault(EndOfHeaders, "the session header does not tell where the frames begin");
        return;
    }
    const bool isAfterScene =
        scene >= EndOfHeaders && scene <= begin && m_session->getSceneDataSize() == begin - scene;
    if (begin < EndOfHeaders || begin > m_fileSize || !isAfterScene)
        addFault(EndOfHeaders,
                 "the session header tells other places of the scene and the frames than there are");
    else
        m_begin = begin;
    for (const auto& plot : m_session->m_plots) {
        const FileJournal::PlotEntry& place = plot.value;
        if (place.offset < m_begin || place.offset > m_fileSize ||
            place.headerSize > m_fileSize - place.offset ||
            place.dataSize > m_fileSize - place.offset - place.headerSize)
            addFault(JournalMeta::JournalHeaderSize, "plot '" + plot.key + "' lies outside of the file");
        else
            m_limit = std::min(m_limit, place.offset);
    }
}

std::optional<zel::size_t> PlainJournal::findFrame(uint64 index) const {
    const auto place =
        std::lower_bound(m_frames.begin(), m_frames.end(), index, [](const FrameEntry& entry, uint64 wanted) {
            return entry.record.index < wanted;
        });
    if (place == m_frames.end() || place->record.index != index)
        return {};
    return static_cast<zel::size_t>(place - m_frames.begin());
}

/// The fast way: from record to record, which must lead to the end that the headers tell.
bool PlainJournal::walk(Search search) {
    if (!m_faults.empty() && search == Search::Walk)
        return false;
    const uint64 limit = m_isClosed ? m_session->getNumFrames() : zel::InvalidIndex;
    uint64 offset = m_endOfFrames;
    while (offset < m_limit && m_frames.size() < limit) {
        FrameEntry entry{};
        entry.offset = offset;
        FrameExtent extent{};
        const bool stands = m_limit - offset >= sizeof(entry.record) &&
                            m_file->readAt(offset, &entry.record, sizeof(entry.record)) &&
                            faultOf(entry.record) == nullptr && extentOf(entry.record, offset, extent) &&
                            extent.end <= m_limit &&
                            (m_frames.empty() ? entry.record.isKeyFrame != 0
                                              : entry.record.index > m_frames.back().record.index);
        if (!stands)
            break;
        entry.dataOffset = extent.dataOffset;
        m_frames.push_back(entry);
        offset = extent.end;
    }
    const bool isWhole =
        m_isClosed ? m_frames.size() == limit &&
                         (m_frames.empty() || m_frames.back().record.index == m_session->getLastFrameIndex())
                   : offset == m_limit;
    if (isWhole || search == Search::Records)
        m_endOfFrames = offset;
    else
        m_frames.clear();
    if (!isWhole && m_isClosed && search == Search::Records)
        addFault(offset, "the frames that the session header tells of end here");
    return isWhole;
}

zel::ref_ptr<BinaryData> PlainJournal::readBlock(const char* what, uint64 offset, uint64 size) const {
    if (offset > m_fileSize || size > m_fileSize - offset)
        throw std::runtime_error(zel::String("the file ends within the ") + what + " of a frame");
    zel::ref_ptr<BinaryData> block(new BinaryData(size));
    if (!m_file->readAt(offset, block->getData(), size))
        throw std::runtime_error(zel::String("the ") + what +
                                 " of a frame can not be read: " + m_file->getReason());
    return block;
}

zel::ref_ptr<BinaryData> PlainJournal::readHeader(const FrameEntry& entry) const {
    return readBlock("header", entry.offset, entry.record.headerSize);
}

zel::ref_ptr<BinaryData> PlainJournal::readSegment(const FrameEntry& entry) const {
    return readBlock("data", entry.dataOffset, entry.record.dataSize);
}

PlainFrame PlainJournal::read(const FrameEntry& entry, bool withData, PlainFrame::Names& names) const {
    try {
        const auto header = readHeader(entry);
        return {header.get(), withData ? readSegment(entry).get() : nullptr, names};
    } catch (const std::runtime_error& error) {
        fail(entry, error);
    }
}

void PlainJournal::fail(const FrameEntry& entry, const std::runtime_error& error) {
    throw std::runtime_error(zel::String::format("frame %llu at offset %llu: %s",
                                                 static_cast<unsigned long long>(entry.record.index),
                                                 static_cast<unsigned long long>(entry.offset),
                                                 error.what()));
}

zel::size_t PlainJournal::keyFrameOf(zel::size_t place) const {
    if (place >= m_frames.size())
        throw std::runtime_error("the journal has no such frame");
    while (place != 0 && m_frames[place].record.isKeyFrame == 0)
        --place;
    return place;
}

PlainFrame PlainJournal::readAlone(zel::size_t place) const {
    PlainFrame::Names names;
    for (zel::size_t i = keyFrameOf(place); i < place; ++i)
        (void)read(m_frames[i], false, names);
    return read(m_frames[place], true, names);
}

const PlainFrame& PlainJournal::readComplete(zel::size_t place) {
    zel::size_t first = keyFrameOf(place);
    if (m_place <= place) // not where there is none
        first = std::max(first, m_place + 1);
    m_place = NoPlace; // until all went well
    for (zel::size_t i = first; i <= place; ++i) {
        const PlainFrame frame = read(m_frames[i], true, m_names);
        try {
            m_state.merge(frame, getMaxBytes());
        } catch (const std::runtime_error& error) {
            fail(m_frames[i], error);
        }
    }
    m_place = place;
    return m_state;
}

// NOLINTNEXTLINE(misc-no-recursion): as deep as the frame that was read
void PlainJournal::readElements(const FrameEntry& entry, PlainFrame::Node& node) const {
    if (node.numBytes != 0) {
        node.data = readBlock("data", entry.dataOffset + node.offset, node.numBytes).get();
        node.offset = 0;
    }
    for (PlainFrame::Node& child : node.children)
        readElements(entry, child);
}

PlainFrame
PlainJournal::readPart(zel::size_t place, const PlainFrame::Wants& wants, PlainFrame::Names& names) const {
    if (place >= m_frames.size())
        throw std::runtime_error("the journal has no such frame");
    const FrameEntry& entry = m_frames[place];
    PlainFrame part = read(entry, false, names).getPart(wants);
    try {
        if (part.m_numBytes > entry.record.dataSize)
            throw std::runtime_error("the elements of two nodes overlap");
        readElements(entry, part.m_root);
    } catch (const std::runtime_error& error) {
        fail(entry, error);
    }
    return part;
}

} // namespace zelData
