#include "FrameRecord.h"
#include "JournalMeta.h"
#include "files/DiskFile.h"

#include <zel/Log.h>
#include <zel/Verify.h>
#include <zelCore/Version.h>
#include <zelData/FileFrameWriter.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

// Finding the frames in the file: from one to the next, by their records.

namespace zelData {

using Session = FileJournal::Session;
using Record = FrameRecord;
using zel::uint64;
using zel::uint8;
using zelIO::DiskFile;

namespace {

/// Reads records one behind the other: each alone where frames are large, many at once where they are small.
class RecordReader {
public:
    explicit RecordReader(DiskFile& file) : m_file(file) {}

    /// @return whether there are as many bytes
    bool read(uint64 offset, Record& record) {
        if (offset < m_begin || m_length < sizeof(record) || offset - m_begin > m_length - sizeof(record)) {
            const bool isNear = offset - m_begin < BlockSize;
            m_begin = offset;
            if (!m_file.readSomeAt(offset, m_block.get(), isNear ? BlockSize : sizeof(record), m_length) ||
                m_length < sizeof(record))
                return false;
        }
        std::memcpy(&record, m_block.get() + (offset - m_begin), sizeof(record));
        return true;
    }

private:
    static constexpr uint64 BlockSize = 65536;

    DiskFile& m_file;
    std::unique_ptr<uint8[]> m_block{new uint8[BlockSize]}; // not cleared: it is written ahead of being read
    uint64 m_begin = 0;
    uint64 m_length = 0;
};

} // namespace

void Session::clearFrames() {
    m_frameLookup.clear();
    m_frameTable.clear();
}

void Session::enterFrame(const Record& meta, uint64 headerOffset, uint64 dataOffset) {
    const uint64 position = m_frameTable.size();
    m_frameTable.push_back(FrameInfo{meta.index, meta, headerOffset, dataOffset, position});
    m_frameLookup.insert(meta.index, position);
}

void Session::dropFramesFrom(uint64 offset) {
    while (!m_frameTable.empty() && m_frameTable.back().headerOffset >= offset) {
        m_frameLookup.erase(m_frameTable.back().index);
        m_frameTable.pop_back();
    }
}

uint64 Session::limitOfPlots() const {
    uint64 limit = zel::InvalidIndex;
    for (const auto& plot : m_plots)
        if (plot.value.offset >= m_frameDataOffset)
            limit = std::min(limit, plot.value.offset);
    return limit;
}

void Session::walkFrames(uint64 offset, uint64 limit, bool quiet) {
    const auto failText = [this] { return "Could not create frame table from journal '" + m_path + "'."; };
    DiskFile stream(m_path, DiskFile::Mode::Read);
    uint64 size = 0;
    const bool good = stream.isOpen() && stream.size(size);
    if (!good && (m_mode == Tolerant || quiet))
        throw std::runtime_error(failText() + " " + stream.getReason());
    zelVerifyNAs(good, "stream.good()", "%s", failText().c_str());
    const bool isOpen = limit == zel::InvalidIndex;
    if (isOpen || getZelVersionNumber() < ZEL_CALC_VERSION(2, 6, 1, 0)) // such a one does not tell the number
        size = std::min(size, limitOfPlots());

    RecordReader records(stream);
    m_frameHead = offset;
    for (; m_frameTable.size() < limit && m_frameHead < size;) {
        Record meta{};
        FrameExtent extent{};
        const char* fault = size - m_frameHead < sizeof(meta) || !records.read(m_frameHead, meta)
                                ? "is cut off within the record of a frame"
                                : faultOf(meta);
        if (fault == nullptr && !extentOf(meta, m_frameHead, extent))
            fault = "tells sizes that no file has";
        const bool isTorn = fault == nullptr && extent.end > size;
        const bool isKnown = fault == nullptr && m_frameLookup.contains(meta.index);
        if (m_mode != Tolerant && !quiet) {
            zelVerifyNAs(fault == nullptr,
                         "stream.good()",
                         "%s At offset %llu the file %s.",
                         failText().c_str(),
                         static_cast<unsigned long long>(m_frameHead),
                         fault);
            zelVerifyAs(!isKnown, "!m_frameTable.contains(meta.index)");
        } else if (fault != nullptr || isTorn || isKnown) {
            if (isKnown)
                fault = "has the index of an earlier frame again";
            else if (isTorn)
                fault = "is cut off within a frame";
            if (!quiet)
                ZEL_LOG_WARNING("Journal '" << m_path << "': the file " << fault << " at offset "
                                            << m_frameHead
                                            << "; frames ahead of it: " << m_frameTable.size());
            return;
        }
        enterFrame(meta, m_frameHead, extent.dataOffset);
        if (isTorn) // fails when it is read, and the next frame is written over it
            return;
        m_frameHead = extent.end;
    }
}

void Session::createFrameTable() {
    clearFrames();
    if (m_frameDataOffset == zel::InvalidIndex) {
        if (m_mode == Tolerant && getNumFrames() != 0)
            ZEL_LOG_WARNING("Journal '" << m_path << "': its header does not tell where its "
                                        << getNumFrames() << " frames begin");
        else
            zelVerifyAs(getNumFrames() == 0, "this->getNumFrames() == 0");
        return;
    }
    const bool isClosed = getLastFrameIndex() != zel::InvalidIndex;
    const uint64 limit = isClosed ? getNumFrames() : uint64{zel::InvalidIndex};
    walkFrames(m_frameDataOffset, limit, false);
    if (isClosed && m_frameTable.size() == limit)
        return;
    if (m_frameTable.empty()) {
        setNumFrames(0);
        return;
    }
    ZEL_LOG_WARNING("Trying to recover inconsistent journal file '" << m_path << "'");
    describeFrames();
    ZEL_LOG_WARNING("Recover last frame: " << getLastFrameIndex()
                                           << ", computed stride: " << getFrameStride());
}

void Session::describeFrames() {
    setNumFrames(m_frameTable.size());
    if (m_frameTable.empty())
        return;
    const FrameInfo& first = m_frameTable.front();
    const FrameInfo& last = m_frameTable.back();
    const uint64 numSteps = m_frameTable.size() - 1;
    setFirstFrameIndex(first.index);
    setFirstFrameTimeStamp(first.meta.timeStamp);
    setLastFrameIndex(last.index);
    setLastFrameTimeStamp(last.meta.timeStamp);
    setFrameStride(numSteps == 0 || last.index < first.index ? 1 : (last.index - first.index) / numSteps);
}

/// Sets the session up from the frames alone. They begin somewhere behind the block of the header and the
/// scene.
void Session::recoverHeader() {
    m_isRecovered = true;
    setHeaderFormat(SerializedFrame::BINARY_HEADER);
    DiskFile file(m_path, DiskFile::Mode::Read);
    uint64 size = 0;
    if (!file.isOpen() || !file.size(size))
        throw std::runtime_error("Could not open journal '" + m_path + "'.");
    const uint64 begin = JournalMeta::JournalHeaderSize + MaxHeaderSize;
    const uint64 place = findFrameRecord(file, begin, size);
    if (place == zel::InvalidIndex)
        return;
    m_sceneDataOffset = begin;
    m_sceneDataSize = place - begin;
    m_frameDataOffset = place;
}

uint64 Session::refresh() {
    if (dynamic_cast<FileFrameWriter*>(getFrameIO()) != nullptr)
        return 0;
    JournalMeta meta;
    meta.read(m_path, false);
    // Who looks just when the header is written may see a part of it, and takes it up the next time.
    const zel::ref_ptr<Session> present(new Session(getName(), m_path, Tolerant));
    bool isReadable = false;
    try {
        meta.readSessionHeader(m_path);
        if (const TiXmlElement* root = meta.document.RootElement()) {
            present->load(root);
            present->readExtraData(root->FirstChildElement("ExtraData"));
            present->readPlotData(root->FirstChildElement("Plots"));
            isReadable = true;
        }
    } catch (const std::runtime_error&) {
        isReadable = false;
    }
    if (!isReadable)
        return 0;

    const bool isClosed = present->getLastFrameIndex() != zel::InvalidIndex;
    const uint64 limit = isClosed ? present->getNumFrames() : uint64{zel::InvalidIndex};
    bool goesOn = m_frameDataOffset == present->m_frameDataOffset && m_frameTable.size() <= limit;
    if (goesOn && !m_frameTable.empty()) {
        // The last frame is still there, and complete.
        const FrameInfo& last = m_frameTable.back();
        DiskFile file(m_path, DiskFile::Mode::Read);
        goesOn =
            file.isOpen() && standsAt(file, last.headerOffset, last.meta) && m_frameHead > last.headerOffset;
    }
    const zel::Name name = getName();
    load(meta.document.RootElement());
    setName(name); // the journal knows it by this
    m_extraData.swap(present->m_extraData);
    m_plots.swap(present->m_plots);
    const uint64 known = goesOn ? m_frameTable.size() : 0;
    if (!goesOn)
        clearFrames();
    if (m_frameDataOffset == zel::InvalidIndex) {
        m_frameHead = zel::InvalidIndex;
        return 0;
    }
    walkFrames(goesOn && !m_frameTable.empty() ? m_frameHead : m_frameDataOffset, limit, true);
    if (!isClosed || m_frameTable.size() < limit)
        describeFrames();
    return m_frameTable.size() - known;
}

} // namespace zelData
