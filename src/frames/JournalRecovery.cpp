#include <zelData/FileFrameWriter.h>
#include <zelData/FileJournal.h>
#include <zelData/JournalRecovery.h>
#include <zelIO/FileSystem.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>

// New journals from the frames of others.

namespace zelData {

using zel::uint64;
using zelIO::FileSystem;

namespace {

using FrameEntry = PlainJournal::FrameEntry;

/// A journal that is being made, and goes again unless it is finished.
class NewJournal {
public:
    /// @param isTolerant  whether a session that can not be described as the source is one without a
    /// description
    NewJournal(const PlainJournal& source, const zel::String& path, bool isTolerant) : m_path(path) {
        if (FileSystem::exists(path))
            throw std::runtime_error("There is a file '" + path + "' already.");
        try {
            if (!describe(source, isTolerant)) {
                FileSystem::remove(path, false);
                m_session = FileJournal::Session::create("recovered", path);
                setNumbers(source);
            }
            std::stringstream scene;
            if (m_isDescribed)
                copyScene(source, isTolerant, scene);
            m_session->packSceneData(scene);
        } catch (...) {
            FileSystem::remove(path, false);
            throw;
        }
        m_writer = new FileFrameWriter(m_session.get());
    }
    NewJournal(const NewJournal&) = delete;
    NewJournal& operator=(const NewJournal&) = delete;
    ~NewJournal() {
        m_writer = nullptr;
        if (!m_isFinished)
            FileSystem::remove(m_path, false);
    }

    void write(const BinaryData* header, const BinaryData* segment) { m_writer->writeFrame(header, segment); }
    void finish() {
        m_writer->endOfStream();
        m_isFinished = true;
    }
    /// Whether the session is told of what the source's was.
    [[nodiscard]] bool isDescribed() const { return m_isDescribed; }

private:
    bool describe(const PlainJournal& source, bool isTolerant) {
        const FileJournal::Session* former = source.getSession();
        if (former == nullptr)
            return false;
        try {
            m_session = FileJournal::Session::create(former->getName(), m_path);
            setNumbers(source);
            m_session->copyDescription(*former);
            m_isDescribed = true;
        } catch (const std::runtime_error&) {
            if (!isTolerant)
                throw;
        }
        return m_isDescribed;
    }

    /// The writer sets these, but for the stride. They are told ahead so that the header is known to fit.
    void setNumbers(const PlainJournal& source) {
        const auto& first = source.getFrames().front().record;
        const auto& last = source.getFrames().back().record;
        m_session->setNumFrames(zel::InvalidIndex);
        m_session->setFirstFrameIndex(first.index);
        m_session->setFirstFrameTimeStamp(first.timeStamp);
        m_session->setLastFrameTimeStamp(last.timeStamp);
        if (source.getFrames().size() > 1)
            m_session->setFrameStride((last.index - first.index) / (source.getFrames().size() - 1));
    }

    static void copyScene(const PlainJournal& source, bool isTolerant, std::stringstream& scene) {
        try {
            source.getSession()->unpackSceneData(scene);
        } catch (const std::runtime_error&) { // it is not whole
            if (!isTolerant)
                throw;
            scene.str({});
        }
    }

    zel::String m_path;
    zel::ref_ptr<FileJournal::Session> m_session;
    zel::ref_ptr<FileFrameWriter> m_writer;
    bool m_isDescribed = false;
    bool m_isFinished = false;
};

} // namespace

RecoveryReport recoverJournal(const zel::String& path, const zel::String& newPath) {
    const PlainJournal journal(path, PlainJournal::Search::Scan);
    RecoveryReport report;
    report.missingFrames = journal.getMissingFrames();
    report.gaps = journal.getGaps();
    report.faults = journal.getFaults();
    if (journal.getFrames().empty())
        throw std::runtime_error("No frame of '" + path + "' can be read.");
    NewJournal target(journal, newPath, true);
    report.hasSession = target.isDescribed();
    for (const FrameEntry& entry : journal.getFrames()) {
        target.write(journal.readHeader(entry).get(), journal.readSegment(entry).get());
        report.frames.push_back(entry.record.index);
    }
    target.finish();
    report.check = verifyJournal(newPath);
    return report;
}

uint64 cutJournal(const zel::String& path, const zel::String& newPath, uint64 first, uint64 last) {
    PlainJournal journal(path);
    const auto& frames = journal.getFrames();
    const auto begin = std::find_if(frames.begin(), frames.end(), [first](const FrameEntry& entry) {
        return entry.record.index >= first;
    });
    if (begin == frames.end() || begin->record.index > last)
        throw std::runtime_error(zel::String::format("'%s' has no frame from %llu to %llu.",
                                                     path.c_str(),
                                                     static_cast<unsigned long long>(first),
                                                     static_cast<unsigned long long>(last)));
    NewJournal target(journal, newPath, false);
    zel::ref_ptr<BinaryData> header;
    zel::ref_ptr<BinaryData> segment;
    const auto place = static_cast<zel::size_t>(begin - frames.begin());
    // The names keep their ids, so that the increments behind it stay as they are.
    if (begin->record.isKeyFrame == 0)
        journal.readComplete(place).write(journal.getNames(), header, segment);
    uint64 count = 0;
    for (auto entry = begin; entry != frames.end() && entry->record.index <= last; ++entry, ++count) {
        if (!header) {
            header = journal.readHeader(*entry);
            segment = journal.readSegment(*entry);
        }
        target.write(header.get(), segment.get());
        header = nullptr;
    }
    target.finish();
    return count;
}

} // namespace zelData
