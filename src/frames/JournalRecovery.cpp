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
    /// @param source  what the session is told of
    NewJournal(const PlainJournal& source, const zel::String& path) : m_path(path) {
        if (FileSystem::exists(path))
            throw std::runtime_error("There is a file '" + path + "' already.");
        FileJournal::Session* former = source.getSession();
        m_session = FileJournal::Session::create(
            former == nullptr ? zel::Name("recovered") : former->getName(), path);
        std::stringstream scene;
        if (former != nullptr) {
            m_session->copyDescription(*former);
            try {
                former->unpackSceneData(scene);
            } catch (const std::runtime_error&) { // the scene is not whole
                scene.str({});
            }
        }
        if (former == nullptr && source.getFrames().size() > 1)
            m_session->setFrameStride(
                (source.getFrames().back().record.index - source.getFrames().front().record.index) /
                (source.getFrames().size() - 1));
        m_session->packSceneData(scene);
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

private:
    zel::String m_path;
    zel::ref_ptr<FileJournal::Session> m_session;
    zel::ref_ptr<FileFrameWriter> m_writer;
    bool m_isFinished = false;
};

} // namespace

RecoveryReport recoverJournal(const zel::String& path, const zel::String& newPath) {
    const PlainJournal journal(path, PlainJournal::Search::Scan);
    RecoveryReport report;
    report.missingFrames = journal.getMissingFrames();
    report.gaps = journal.getGaps();
    report.faults = journal.getFaults();
    report.hasSession = journal.getSession() != nullptr;
    if (journal.getFrames().empty())
        throw std::runtime_error("No frame of '" + path + "' can be read.");
    NewJournal target(journal, newPath);
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
    NewJournal target(journal, newPath);
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
