#include "ElementSource.h"
#include "Fault.h"
#include "JournalMeta.h"
#include "files/DiskFile.h"

#include <zel/Verify.h>
#include <zelData/BinaryData.h>
#include <zelData/FileFrameReader.h>
#include <zelData/FrameExtractor.h>

#include <algorithm>
#include <cstring>
#include <mutex>

namespace zelData {

using zel::uint64;
using zelIO::DiskFile;

FileFrameReader::FileFrameReader(JournalArchive::Session* session) : m_session(requireFileSession(session)) {
    m_file = std::make_unique<DiskFile>(m_session->getPath(), DiskFile::Mode::Read);
    if (!m_file->isOpen())
        fail(onFault(),
             "m_journalFile.good()",
             "FileFrameReader: Could not open journal file '%s'.",
             m_session->getPath().c_str());
    setHeaderFormat(SerializedFrame::BINARY_HEADER);
    if (m_session->getFrameIO() == nullptr)
        m_session->setFrameIO(this);
    const std::lock_guard lock(getMutex());
    jumpTo(m_session->getFirstFrameIndex());
}

FileFrameReader::~FileFrameReader() = default;

SerializedFrame::OnFault FileFrameReader::onFault() const {
    return m_session->getOpenMode() == FileJournal::Tolerant ? SerializedFrame::OnFault::Throw
                                                             : SerializedFrame::OnFault::EndProcess;
}

bool FileFrameReader::isValidFrame(uint64 index) const {
    return index != zel::InvalidIndex && m_session->getFrameInfo(index) != nullptr;
}

bool FileFrameReader::jumpToFrame(uint64 index) {
    const std::lock_guard lock(getMutex());
    if (index < m_session->getFirstFrameIndex()) {
        jumpTo(m_session->getFirstFrameIndex());
        return false;
    }
    jumpTo(index);
    return isValidFrame(index);
}

bool FileFrameReader::jumpToTime(double time) {
    const std::lock_guard lock(getMutex());
    const uint64 index = findFrameAtTime(time);
    jumpTo(index);
    return isValidFrame(index);
}

void FileFrameReader::refuse(uint64 frameIndex) const {
    fail(onFault(),
         "m_journalFile.good()",
         "FileFrameReader: Could not read frame %u",
         static_cast<unsigned>(frameIndex));
}

bool FileFrameReader::reaches(uint64 offset, uint64 numBytes) {
    uint64 size = 0;
    return m_file->size(size) && offset <= size && numBytes <= size - offset;
}

BinaryData* FileFrameReader::readHeader(const FileJournal::FrameInfo& info) {
    const uint64 numBytes = info.meta.headerSize;
    // Ahead of the memory for it: the number comes from the file.
    if (!reaches(info.headerOffset, numBytes))
        refuse(info.index);
    if (!m_header.data || m_header.data->referenceCount() != 1 || m_header.capacity < numBytes) {
        m_header.capacity = 0;
        m_header.data = new BinaryData(numBytes);
        m_header.capacity = numBytes;
    }
    m_header.data->setApparentSize(numBytes);
    if (!m_file->readAt(info.headerOffset, m_header.data->getData(), numBytes))
        refuse(info.index);
    return m_header.data.get();
}

/// The data segment of a frame: columns go from the file to where they belong, small nodes through a window
/// that moves along with them.
class FileFrameReader::Segment : public ElementSource {
public:
    Segment(FileFrameReader& reader, const FileJournal::FrameInfo& info) : m_reader(reader), m_info(info) {
        if (!reader.reaches(info.dataOffset, info.meta.dataSize))
            reader.refuse(info.index);
    }

    void read(uint64 offset, void* target, uint64 numBytes) override {
        if (offset < m_begin || offset + numBytes > m_end) {
            if (numBytes >= WindowSize) {
                readFile(offset, target, numBytes);
                return;
            }
            const uint64 length = std::min(WindowSize, m_info.meta.dataSize - offset);
            if (m_reader.m_window.size() < length)
                m_reader.m_window.resize(length);
            m_begin = m_end = offset;
            readFile(offset, m_reader.m_window.data(), length);
            m_end = offset + length;
        }
        std::memcpy(target, m_reader.m_window.data() + (offset - m_begin), numBytes);
    }

private:
    /// The second level of a processor's cache holds it.
    static constexpr uint64 WindowSize = uint64{64} << 10;

    void readFile(uint64 offset, void* target, uint64 numBytes) {
        if (!m_reader.m_file->readAt(m_info.dataOffset + offset, target, numBytes))
            m_reader.refuse(m_info.index);
    }

    FileFrameReader& m_reader;
    const FileJournal::FrameInfo& m_info;
    uint64 m_begin = 0; // of what is in the window
    uint64 m_end = 0;
};

Frame* FileFrameReader::readFrame(uint64 index) {
    if (!isValidFrame(index))
        return nullptr;
    zelVerifyAs(getHeaderFormat() == SerializedFrame::BINARY_HEADER,
                "this->getHeaderFormat() == SerializedFrame::BINARY_HEADER");
    const FileJournal::FrameInfo& info = *m_session->getFrameInfo(index);
    const BinaryData* header = readHeader(info);
    Segment segment(*this, info);
    const zel::ref_ptr<const BinaryData> size(
        new BinaryData(nullptr, info.meta.dataSize, DataAllocationType::Malloc));
    return SerializedFrame::BinaryHeader::FrameExtractor(header, size.get(), m_names, this, onFault())
        .extract(!m_sequenceMode, &segment);
}

void FileFrameReader::prepareSequence(uint64 first, uint64 last) {
    m_sequenceMode = true;
    const FileJournal::FrameInfo* info = m_session->getFrameInfo(first);
    if (info != nullptr && info->meta.isKeyFrame != 0)
        m_names.clear();
    for (uint64 index = first; index != zel::InvalidIndex; index = m_session->getNextFrameIndex(index, 1)) {
        info = m_session->getFrameInfo(index);
        if (info == nullptr)
            break;
        SerializedFrame::updateNameTable(readHeader(*info), m_names, onFault());
        if (index == last)
            break;
    }
}

void FileFrameReader::endSequence() {
    m_sequenceMode = false;
}

} // namespace zelData
