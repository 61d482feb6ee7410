#include "Fault.h"
#include "JournalMeta.h"
#include "files/DiskFile.h"

#include <zel/Verify.h>
#include <zelData/BinaryData.h>
#include <zelData/FileFrameReader.h>

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

BinaryData* FileFrameReader::readBlock(Block& block, uint64 frameIndex, uint64 offset, uint64 numBytes) {
    const auto refuse = [&] {
        fail(onFault(),
             "m_journalFile.good()",
             "FileFrameReader: Could not read frame %u",
             static_cast<unsigned>(frameIndex));
    };
    // Ahead of the memory for it: the number comes from the file.
    uint64 size = 0;
    if (!m_file->size(size) || offset > size || numBytes > size - offset)
        refuse();
    if (!block.data || block.data->referenceCount() != 1 || block.capacity < numBytes) {
        block.capacity = 0;
        block.data = new BinaryData(numBytes);
        block.capacity = numBytes;
    }
    block.data->setApparentSize(numBytes);
    if (!m_file->readAt(offset, block.data->getData(), numBytes))
        refuse();
    return block.data.get();
}

Frame* FileFrameReader::readFrame(uint64 index) {
    if (!isValidFrame(index))
        return nullptr;
    zelVerifyAs(getHeaderFormat() == SerializedFrame::BINARY_HEADER,
                "this->getHeaderFormat() == SerializedFrame::BINARY_HEADER");
    const FileJournal::FrameInfo& info = *m_session->getFrameInfo(index);
    BinaryData* header = readBlock(m_header, index, info.headerOffset, info.meta.headerSize);
    BinaryData* data = readBlock(m_data, index, info.dataOffset, info.meta.dataSize);
    return SerializedFrame::extractFrame(header, data, m_names, !m_sequenceMode, this, onFault());
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
        const BinaryData* header = readBlock(m_header, index, info->headerOffset, info->meta.headerSize);
        SerializedFrame::updateNameTable(header, m_names, onFault());
        if (index == last)
            break;
    }
}

void FileFrameReader::endSequence() {
    m_sequenceMode = false;
}

} // namespace zelData
