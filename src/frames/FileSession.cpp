#include "JournalMeta.h"
#include "JournalSums.h"
#include "files/DiskFile.h"

#include <zel/Exception.h>
#include <zel/Log.h>
#include <zel/Verify.h>
#include <zelIO/FileSystem.h>

#include <array>
#include <charconv>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>

// Sessions: making them, their frames by index, and the scene.

namespace zelData {

using Session = FileJournal::Session;
using zel::uint64;
using zelIO::DiskFile;
using zelIO::FileSystem;

namespace {

constexpr uint64 BlockSize = 65536;

} // namespace

Session* requireFileSession(JournalArchive::Session* session) {
    Session* fileSession = FileJournal::downcastSession(session);
    zelVerifyNAs(session != nullptr,
                 "m_session",
                 "FileFrameReader: Given a nullptr session to read from. Cannot read from nullptr.");
    zelVerifyNAs(fileSession != nullptr,
                 "m_session || !session",
                 "FileFrameReader: Given a session that isn't a File session. Cannot read from it.");
    return fileSession;
}

Session::Session(const zel::Name& name, const zel::String& path, OpenMode mode)
    : JournalArchive::Session(name), m_path(path), m_mode(mode) {}

Session::~Session() = default;

Session* Session::create(const zel::Name& name, const zel::String& path) {
    zel::ref_ptr<Session> session(new Session(name, path, Strict));
    session->setHeaderFormat(SerializedFrame::BINARY_HEADER);
    session->requireWritableHeader("the session", name.c_str());
    if (FileSystem::exists(path)) {
        std::cout << "WARNING: Removing existing journal " << path << std::endl;
        FileSystem::remove(path, false);
    }
    JournalSums(path).remove();
    JournalMeta meta;
    meta.write(path);
    meta.read(path, false);
    if (meta.hasSessionHeader())
        ZEL_THROW(std::runtime_error, "Journal '" + path + "' already contains a session!");
    session->writeHeader();
    return session.release_nodelete();
}

zel::String Session::getPath() const {
    return m_path;
}

void Session::transferDiskData(JournalArchive* /*target*/) {
    zelAbort("The session of journal '%s' lies in one file with it and can not be moved", m_path.c_str());
}

void Session::copyDiskData(JournalArchive* /*target*/) {
    zelAbort("The session of journal '%s' lies in one file with it and can not be copied", m_path.c_str());
}

// Frames

const FileJournal::FrameInfo* Session::getFrameInfo(uint64 frameIndex) const {
    const auto entry = m_frameLookup.find(frameIndex);
    return entry == m_frameLookup.end() ? nullptr : &m_frameTable[entry->value];
}

Frame::Header Session::getFrameHeader(uint64 frameIndex) const {
    const FrameInfo* info = getFrameInfo(frameIndex);
    if (info == nullptr)
        return {zel::InvalidIndex, -1, -1, Frame::NoId, false};
    return {
        info->index, info->meta.timeStep, info->meta.timeStamp, info->meta.id, info->meta.isKeyFrame != 0};
}

uint64 Session::getNextFrameIndex(uint64 frameIndex, zel::int64 step) const {
    const FrameInfo* info = getFrameInfo(frameIndex);
    if (info == nullptr)
        return zel::InvalidIndex;
    const uint64 ahead = m_frameTable.size() - 1 - info->position;
    const bool isInside = step < 0 ? uint64{0} - static_cast<uint64>(step) <= info->position
                                   : static_cast<uint64>(step) <= ahead;
    return isInside ? m_frameTable[info->position + static_cast<uint64>(step)].index
                    : uint64{zel::InvalidIndex};
}

bool Session::truncate(uint64 frameIndex) {
    if (!m_plots.empty() || !m_savedPlots.empty()) {
        ZEL_LOG_INFO("Removing " << m_plots.size() + m_savedPlots.size() << " plots from journal " << m_path);
        m_plots.clear();
        m_savedPlots.clear();
    }
    // A session that is being written does not tell its last frame.
    const uint64 first = m_frameTable.empty() ? getFirstFrameIndex() : m_frameTable.front().index;
    const uint64 last = m_frameTable.empty() ? getLastFrameIndex() : m_frameTable.back().index;
    const bool isAhead = frameIndex < first;
    if (isAhead || frameIndex > last || (m_frameTable.empty() && frameIndex != last)) {
        ZEL_LOG_WARNING(
            "FileJournal: Cannot truncate a session outside its range. Asked to truncate at frame "
            << frameIndex
            << (isAhead ? " in a session starting with frame " : " in a session ending with frame ")
            << (isAhead ? first : last) << ".");
        return false;
    }
    if (frameIndex == last)
        return true;
    const FrameInfo* frameInfo = getFrameInfo(frameIndex);
    zelVerify(frameInfo);
    m_frameHead = frameInfo->headerOffset;
    dropFramesFrom(m_frameHead);
    if (!JournalSums(m_path).cut(m_frameHead))
        ZEL_LOG_WARNING("Journal '" << m_path << "': the checksums beside it can not be cut");
    setNumFrames(m_frameTable.size());
    if (m_frameTable.empty()) {
        setFirstFrameIndex(0);
        setFirstFrameTimeStamp(0);
        setLastFrameIndex(0);
        setLastFrameTimeStamp(0);
    } else {
        setLastFrameIndex(m_frameTable.back().index);
        setLastFrameTimeStamp(m_frameTable.back().meta.timeStamp);
    }
    writeHeader();
    return true;
}

void Session::finalizeHeader() {
    writeHeader();
    createFrameTable();
}

void Session::beginWriting(const SerializedFrame::BinaryHeader::Frame& first, uint64 stride) {
    const JournalMeta meta = readMeta();
    if (meta.sessionHeaderOffset > m_frameDataOffset ||
        m_frameDataOffset - meta.sessionHeaderOffset < MaxHeaderSize)
        throw std::runtime_error("Its session header does not lie ahead of the frames.");
    takePlots();
    DiskFile file(m_path, DiskFile::Mode::ReadWrite);
    uint64 size = 0;
    const bool isCut = file.isOpen() && file.size(size) && (size <= m_frameHead || file.cut(m_frameHead));
    if (!isCut || !file.close())
        throw std::runtime_error(file.getReason());
    if (!JournalSums(m_path).cut(m_frameHead))
        throw std::runtime_error("The checksums beside it can not be cut.");
    if (m_frameTable.empty()) {
        setFirstFrameIndex(first.index);
        setFirstFrameTimeStamp(first.timeStamp);
        setTimeStep(first.timeStep);
        setFrameStride(stride);
    }
    setNumFrames(m_frameTable.size());
    setLastFrameIndex(zel::InvalidIndex);
    m_isClosed = false;
    writeHeader();
}

void Session::endWriting() {
    if (m_frameTable.empty()) {
        setLastFrameIndex(0);
        setLastFrameTimeStamp(0);
    } else {
        setLastFrameIndex(m_frameTable.back().index);
        setLastFrameTimeStamp(m_frameTable.back().meta.timeStamp);
    }
    setNumFrames(m_frameTable.size());
    finalizeHeader();
    m_isClosed = true;
    while (!m_savedPlots.empty()) {
        appendPlot(m_savedPlots.front());
        m_savedPlots.erase(m_savedPlots.begin());
    }
}

// The scene

zel::String Session::getCustomFilesPath(bool create) {
    zel::String path =
        FileSystem::getPath(m_path) + "/" + FileSystem::getFileWithoutExtension(m_path) + ".files";
    if (create)
        FileSystem::mkdir(path, true);
    return path;
}

zel::String Session::getScenePath(bool create) {
    return getCustomFilesPath(create) + "/ExampleApplication_SceneFile.zel";
}

bool Session::unpackSceneFile() {
    const zel::String path = getScenePath(true);
    std::ofstream stream(path, std::ios::binary);
    if (!stream.good())
        ZEL_THROW(std::runtime_error, "FileJournal: Could not open scene file '" + path + "' for writing.");
    const bool unpacked = unpackSceneData(stream);
    stream.close();
    if (!stream.good())
        ZEL_THROW(std::runtime_error,
                  "FileJournal: Could not read frame scene data from journal '" + m_path + "'.");
    return unpacked;
}

void Session::packSceneData(std::stringstream& stream) {
    std::istringstream text(stream.str());
    packSceneData(static_cast<std::istream&>(text));
}

bool Session::unpackSceneData(std::stringstream& stream) {
    return unpackSceneData(static_cast<std::ostream&>(stream));
}

void Session::packSceneData(std::istream& stream) {
    zelVerifyAs(m_frameDataOffset == zel::InvalidIndex, "m_frameDataOffset == InvalidIndex");
    DiskFile file(m_path, DiskFile::Mode::ReadWrite);
    uint64 begin = 0;
    bool good = file.isOpen() && file.size(begin);
    uint64 offset = begin;
    std::array<char, BlockSize> block; // NOLINT: not cleared, it is written ahead of being read
    while (good && stream.good()) {
        stream.read(block.data(), block.size());
        const auto count = static_cast<uint64>(stream.gcount());
        good = file.writeAt(offset, block.data(), count);
        offset += count;
    }
    const bool isWhole = good && stream.eof() && !stream.bad();
    if (isWhole && file.close()) {
        m_sceneDataOffset = begin;
        m_sceneDataSize = offset - begin;
        m_frameDataOffset = m_frameHead = offset;
        try {
            writeHeader();
            return;
        } catch (...) {
            m_frameDataOffset = m_frameHead = m_sceneDataOffset = zel::InvalidIndex;
            m_sceneDataSize = 0;
            throw;
        }
    }
    if (file.isOpen())
        static_cast<void>(file.cut(begin)); // there is an exception on its way
    ZEL_THROW(std::runtime_error,
              "FileJournal: Could not write frame scene data to journal '" + m_path + "'.");
}

bool Session::unpackSceneData(std::ostream& stream) {
    if (m_sceneDataOffset == zel::InvalidIndex)
        return false;
    DiskFile file(m_path, DiskFile::Mode::Read);
    uint64 size = 0;
    bool good = file.isOpen() && file.size(size) && m_sceneDataOffset <= size &&
                m_sceneDataSize <= size - m_sceneDataOffset;
    std::array<char, BlockSize> block; // NOLINT: not cleared, it is written ahead of being read
    for (uint64 done = 0; good && done < m_sceneDataSize;) {
        const uint64 count = std::min(BlockSize, m_sceneDataSize - done);
        good = file.readAt(m_sceneDataOffset + done, block.data(), count) &&
               stream.write(block.data(), static_cast<std::streamsize>(count)).good();
        done += count;
    }
    if (!good)
        ZEL_THROW(std::runtime_error,
                  "FileJournal: Could not read frame scene data from journal '" + m_path + "'.");
    return true;
}

void Session::printFileStatistics() const {
    const std::string rule(78, '=');
    uint64 headerBytes = 0;
    uint64 dataBytes = 0;
    for (const FrameInfo& info : m_frameTable) {
        headerBytes += info.meta.headerSize;
        dataBytes += info.meta.dataSize;
    }
    const double overhead = headerBytes == 0 ? 0
                                             : 100 * static_cast<double>(headerBytes) /
                                                   static_cast<double>(headerBytes + dataBytes);
    std::array<char, 64> percent{};
    const auto end =
        std::to_chars(percent.data(), percent.data() + percent.size(), overhead, std::chars_format::fixed, 1)
            .ptr;
    std::cout << rule << "\nJournal size: " << FileSystem::size(m_path) / 1024
              << " KB\nNum frames: " << m_frameTable.size()
              << "\nTotal frame data size: " << (headerBytes + dataBytes) / 1024
              << " KB (frame header overhead: " << std::string(percent.data(), end) << "%)\n"
              << rule << std::endl;
}

} // namespace zelData
