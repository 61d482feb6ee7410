#pragma once

#include "FrameFixture.h"

#include <zelData/DiskFrameReader.h>
#include <zelData/JournalArchive.h>
#include <zelData/SerializedFrame.h>

#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace zelTest {

/// A session whose frames are bytes in memory, for what stands on any session.
class MemorySession : public zelData::JournalArchive::Session {
public:
    explicit MemorySession(const zel::Name& name = "session") : Session(name) {}

    /// Appends a frame, which must be a key frame if it is the first.
    void append(const zelData::Frame* frame) {
        const zel::ref_ptr<zelData::SerializedFrame> serialized(new zelData::SerializedFrame(frame));
        Record record;
        record.meta = frame->getHeader();
        record.header = serialized->writeBinaryHeader(m_names);
        std::ostringstream stream;
        serialized->writeDataSegment(stream);
        const std::string bytes = stream.str();
        record.segment = zelData::BinaryData::copy(bytes.data(), bytes.size());
        if (m_records.empty()) {
            setFirstFrameIndex(frame->getIndex());
            setFirstFrameTimeStamp(frame->getTimeStamp());
            setTimeStep(frame->getTimeStep());
        }
        setLastFrameIndex(frame->getIndex());
        setLastFrameTimeStamp(frame->getTimeStamp());
        setNumFrames(getNumFrames() + 1);
        m_places[frame->getIndex()] = m_records.size();
        m_records.push_back(record);
    }

    struct Record {
        zelData::Frame::Header meta{};
        zel::ref_ptr<zelData::BinaryData> header;
        zel::ref_ptr<zelData::BinaryData> segment;
    };
    [[nodiscard]] const Record& at(zel::uint64 index) const { return m_records[m_places.at(index)]; }
    [[nodiscard]] bool has(zel::uint64 index) const { return m_places.contains(index); }

    [[nodiscard]] zelData::Frame::Header getFrameHeader(zel::uint64 index) const override {
        return has(index) ? at(index).meta
                          : zelData::Frame::Header{zel::InvalidIndex, -1, -1, zelData::Frame::NoId, false};
    }
    [[nodiscard]] zel::uint64 getNextFrameIndex(zel::uint64 index, zel::int64 step) const override {
        if (!has(index))
            return zel::InvalidIndex;
        const auto place = static_cast<zel::int64>(m_places.at(index)) + step;
        return place < 0 || place >= static_cast<zel::int64>(m_records.size())
                   ? zel::uint64{zel::InvalidIndex}
                   : m_records[static_cast<zel::size_t>(place)].meta.index;
    }
    void recordExtraData(const zel::String& key, const zel::String& value) override { extra[key] = value; }
    [[nodiscard]] zel::String retrieveExtraData(const zel::String& key) const override {
        const auto entry = extra.find(key);
        return entry == extra.end() ? zel::String() : zel::String(entry->second);
    }
    void transferDiskData(zelData::JournalArchive* /*target*/) override { ++numTransfers; }
    void copyDiskData(zelData::JournalArchive* /*target*/) override { ++numCopies; }

    // What a session in memory has not.
    [[nodiscard]] zel::String getPath() const override { return {}; }
    bool truncate(zel::uint64 /*index*/) override { return refuse(); }
    [[nodiscard]] zel::String getScenePath(bool /*create*/) override { return {}; }
    bool unpackSceneFile() override { return refuse(); }
    void packSceneData(std::stringstream& /*stream*/) override { refuse(); }
    bool unpackSceneData(std::stringstream& /*stream*/) override { return refuse(); }
    void packSceneData(std::istream& /*stream*/) override { refuse(); }
    bool unpackSceneData(std::ostream& /*stream*/) override { return refuse(); }
    [[nodiscard]] zel::String getCustomFilesPath(bool /*create*/) override { return {}; }
    void savePlot(const zelNet::StructuredMessage* /*message*/) override { refuse(); }
    bool removePlot(const zel::String& /*name*/) override { return refuse(); }
    [[nodiscard]] zelNet::StructuredMessage* getPlot(const zel::String& /*name*/) const override {
        return nullptr;
    }
    void getAllPlots(zel::Vector<zel::ref_ptr<zelNet::StructuredMessage>>& /*plots*/) const override {}
    void getPlotList(zel::Vector<zel::String>& /*names*/) const override {}
    void writeHeader() override { refuse(); }
    void finalizeHeader() override { refuse(); }

    std::map<std::string, std::string> extra;
    int numTransfers = 0;
    int numCopies = 0;

private:
    static bool refuse() { throw std::logic_error("A session in memory has no file"); }

    zelData::SerializedFrame::NameTable m_names;
    std::vector<Record> m_records;
    std::map<zel::uint64, zel::size_t> m_places;
};

/// Reads such a session.
class MemoryReader : public zelData::DiskFrameReader {
public:
    explicit MemoryReader(MemorySession* session, bool threaded = true)
        : DiskFrameReader(threaded), m_session(session) {
        const std::lock_guard lock(getMutex());
        jumpTo(session->getFirstFrameIndex());
    }
    [[nodiscard]] zelData::JournalArchive::Session* getSession() const override { return m_session.get(); }
    using DiskFrameReader::readFrame;
    [[nodiscard]] zelData::Frame* readFrame(zel::uint64 index) override {
        ++numReads;
        if (!m_session->has(index))
            return nullptr;
        if (index == failsAt)
            throw std::runtime_error("the disk is gone");
        const auto& record = m_session->at(index);
        return zelData::SerializedFrame::extractFrame(
            record.header.get(), record.segment.get(), m_names, !m_inSequence, this);
    }
    void prepareSequence(zel::uint64 first, zel::uint64 last) override {
        m_inSequence = true;
        if (m_session->at(first).meta.isKeyFrame)
            m_names.clear();
        for (zel::uint64 index = first;; index = m_session->getNextFrameIndex(index, 1)) {
            zelData::SerializedFrame::updateNameTable(m_session->at(index).header.get(), m_names);
            if (index == last)
                break;
        }
    }
    void endSequence() override { m_inSequence = false; }
    bool jumpToFrame(zel::uint64 index) override {
        const std::lock_guard lock(getMutex());
        const bool isAhead = index < m_session->getFirstFrameIndex();
        jumpTo(isAhead ? m_session->getFirstFrameIndex() : index);
        return !isAhead && m_session->has(index);
    }
    bool jumpToTime(double time) override {
        const std::lock_guard lock(getMutex());
        const zel::uint64 index = findFrameAtTime(time);
        jumpTo(index);
        return m_session->has(index);
    }

    std::atomic<int> numReads{0};
    std::atomic<zel::uint64> failsAt{zel::InvalidIndex};

private:
    zel::ref_ptr<MemorySession> m_session;
    zelData::SerializedFrame::NameLookup m_names;
    bool m_inSequence = false;
};

/// Keeps what it gets.
class CollectingWriter : public zelData::FrameWriter {
public:
    using FrameWriter::FrameWriter;
    void writeFrame(const zelData::Frame* frame) override {
        const std::lock_guard lock(m_mutex);
        if (frame->getIndex() == failsAt)
            throw std::runtime_error("the disk is full");
        m_indices.push_back(frame->getIndex());
    }
    void forceFlush() override { ++numFlushes; }
    void endOfStream() override { ++numEnds; }
    [[nodiscard]] std::vector<zel::uint64> indices() const {
        const std::lock_guard lock(m_mutex);
        return m_indices;
    }

    std::atomic<int> numFlushes{0};
    std::atomic<int> numEnds{0};
    std::atomic<zel::uint64> failsAt{zel::InvalidIndex};

private:
    mutable std::mutex m_mutex;
    std::vector<zel::uint64> m_indices;
};

/// A frame of one value, whose step is 0.5.
inline zel::ref_ptr<zelData::Frame> frameOf(zel::uint64 index, double content, bool isKeyFrame = true) {
    zel::ref_ptr<zelData::Frame> frame(new zelData::Frame(index, 0.5 * static_cast<double>(index), 0.5));
    frame->setKeyFrame(isKeyFrame);
    const zel::ref_ptr<zelData::Value> value(new zelData::Value("value", zelData::getFormat("Real:64bit")));
    value->set(&content);
    frame->addValue(value.get(), "value");
    return frame;
}

} // namespace zelTest
