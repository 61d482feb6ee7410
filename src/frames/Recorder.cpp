#include "RunScene.h"
#include "files/DiskFile.h"

#include <zel/Exception.h>
#include <zel/Log.h>
#include <zel/Model.h>
#include <zel/Verify.h>
#include <zelData/FileFrameWriter.h>
#include <zelData/Format.h>
#include <zelData/RandomGenerator.h>
#include <zelData/Recorder.h>
#include <zelData/Track.h>
#include <zelData/Type.h>
#include <zelData/ValueT.h>
#include <zelIO/FileSystem.h>

#include <sys/statvfs.h>

#include <atomic>
#include <chrono>
#include <exception>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace zelData {

using zel::uint64;
using zelIO::FileSystem;

namespace {

/// Times are sums of steps, and may fall a little short: the part of a step that counts for nothing.
constexpr double TimeTolerance = 1.0 / 1024;

using SteadyTime = std::chrono::steady_clock;

double secondsSince(SteadyTime::time_point start) {
    return std::chrono::duration<double>(SteadyTime::now() - start).count();
}

uint64 freeBytesOf(const zel::String& path) {
    const zel::String directory = FileSystem::getPath(path);
    struct ::statvfs data {};
    if (::statvfs(directory.empty() ? "." : directory.c_str(), &data) != 0)
        return ~uint64{0}; // the writer tells what is wrong
    return uint64{data.f_bavail} * data.f_frsize;
}

zel::String whatOf(const std::exception_ptr& exception) {
    try {
        std::rethrow_exception(exception);
    } catch (const std::exception& error) {
        return error.what();
    } catch (...) {
        return "an exception of an unknown type";
    }
}

} // namespace

/// Adds what a recording wants of a writer.
class Recorder::Writer : public FileFrameWriter {
public:
    Writer(FileJournal* journal, FileJournal::Session* session, bool sync)
        : FileFrameWriter(session)
        , m_journal(journal)
        , m_former(session->getComputationTime())
        , m_begin(SteadyTime::now())
        , m_sync(sync) {}

    void writeFrame(const Frame* frame) override {
        FileFrameWriter::writeFrame(frame);
        if (!m_sync)
            return;
        zelIO::DiskFile file(getSession()->getPath(), zelIO::DiskFile::Mode::ReadWrite);
        if (!file.isOpen() || !file.sync())
            ZEL_THROW(std::runtime_error,
                      "Could not bring frame " + std::to_string(frame->getIndex()) +
                          " to the disk: " + file.getReason());
    }
    void endOfStream() override {
        getSession()->setComputationTime(m_former + secondsSince(m_begin));
        FileFrameWriter::endOfStream();
    }

private:
    zel::ref_ptr<FileJournal> m_journal; // owns the session
    double m_former;                     // of the session that is resumed
    SteadyTime::time_point m_begin;
    bool m_sync;
};

Recorder::Recorder(const zel::Name& name)
    : Component(name, ClassModel()), captureEvent("CaptureEvent", this), m_bindings(new FrameIO(false)) {
    rebindsOnDemand(typeid(Recorder));
}

Recorder::~Recorder() {
    detach();
    stop();
}

zel::Model* Recorder::ClassModel() {
    static std::atomic<zel::Model*> s_model{nullptr};
    return zel::Model::createBuiltinModel("zelData.Recorder", Component::ClassModel(), s_model);
}

zel::ref_ptr<Recorder> Recorder::record(zel::Clock* clock, const zel::String& journal, zel::Component* root) {
    zel::ref_ptr<Recorder> recorder(new Recorder);
    recorder->setClock(clock);
    recorder->setJournal(journal);
    recorder->setRoot(root);
    recorder->start();
    return recorder;
}

void Recorder::setStride(uint64 stride) {
    zelVerify(stride > 0);
    m_stride = stride;
}

void Recorder::setTimeWindow(double start, double end) noexcept {
    m_start = start;
    m_end = end;
}

// The clock

void Recorder::setClock(zel::Clock* clock) {
    zelVerifyN(!isRecording(), "%s: The clock of a recording can not change", getPath().c_str());
    attach(clock);
}

void Recorder::attach(zel::Clock* clock) {
    if (m_clock == clock)
        return;
    detach();
    m_clock = clock;
    if (clock == nullptr)
        return;
    m_preTick = clock->preTick.connect([this](zel::Clock*) { beginTick(); });
    m_postTick = clock->postTick.connect([this](zel::Clock*) { endTick(); });
}

void Recorder::detach() {
    if (m_clock) {
        m_clock->preTick.disconnect(m_preTick);
        m_clock->postTick.disconnect(m_postTick);
    }
    m_clock = nullptr;
}

void Recorder::beginTick() {
    const zel::ref_ptr<Recorder> keep(referenceCount() > 0 ? this : nullptr);
    if (std::exchange(m_startsByItself, false))
        start();
}

void Recorder::endTick() {
    if (!isRecording())
        return;
    const zel::ref_ptr<Recorder> keep(referenceCount() > 0 ? this : nullptr);
    if (const std::exception_ptr failure = m_track->getException())
        endWith(whatOf(failure));
    else if (!m_root)
        endWith(zel::String("what it records is gone."));
    else if (m_clock->getTime() > m_end + TimeTolerance * m_clock->getTimeStep())
        stop();
    else if (isDue())
        capture();
}

bool Recorder::isDue() const {
    if (m_numFrames == 1 && m_clock->getFrame() == m_lastIndex)
        return false; // a callback of this very tick has started the recording
    return m_clock->getFrame() % m_stride == 0 &&
           m_clock->getTime() >= m_start - TimeTolerance * m_clock->getTimeStep() &&
           (!m_condition || *static_cast<const bool*>(m_condition->getData()));
}

void Recorder::setContext(zel::Object* context) {
    if (context == nullptr && m_keptRoot == nullptr)
        stop();
    Component::setContext(context);
}

// Journals

zel::String Recorder::journalOf(const zel::String& path, uint64 n) {
    if (n == 0)
        return path;
    const zel::size_t dot = path.rfind('.');
    const zel::size_t slash = path.rfind('/');
    const bool hasExtension = dot != zel::String::npos && (slash == zel::String::npos || dot > slash + 1);
    const zel::size_t end = hasExtension ? dot : path.size();
    return path.substr(0, end) + "-" + std::to_string(n) + path.substr(end);
}

uint64 Recorder::lastOfSeries() const {
    uint64 n = 0;
    while (FileSystem::exists(journalOf(m_journalPath, n + 1)))
        ++n;
    return n;
}

/// Looks at what is there already ahead of any change.
void Recorder::prepareFiles() {
    m_journalNumber = 0;
    const bool isSeries = m_maxJournalBytes != 0 || m_maxJournalTime > 0;
    const uint64 last = isSeries ? lastOfSeries() : 0;
    if (m_resume) {
        m_journalNumber = last;
        return;
    }
    for (uint64 n = 0; n <= last; ++n) {
        const zel::String path = journalOf(m_journalPath, n);
        if (!FileSystem::exists(path))
            continue;
        const zel::ref_ptr<FileJournal> journal(new FileJournal(path, FileJournal::Tolerant));
        if (!m_replace && journal->getNumSessions() != 0)
            ZEL_THROW(std::runtime_error, "Journal '" + path + "' already contains a session!");
    }
    for (uint64 n = 0; n <= last; ++n)
        if (FileSystem::exists(journalOf(m_journalPath, n)))
            FileSystem::remove(journalOf(m_journalPath, n), false);
}

/// Frames of a journal that are going to be recorded again are no longer there.
void Recorder::goBack(FileJournal::Session* session) const {
    const auto& table = session->getFrameTable();
    const uint64 frame = m_clock->getFrame();
    if (table.empty())
        return;
    if (frame < table.front().index)
        ZEL_THROW(
            std::runtime_error,
            zel::String::format("Journal '%s' begins with frame %llu: it can not go on from frame %llu.",
                                session->getPath().c_str(),
                                static_cast<unsigned long long>(table.front().index),
                                static_cast<unsigned long long>(frame)));
    if (session->getFrameStride() != m_stride)
        ZEL_THROW(std::runtime_error,
                  zel::String::format("Journal '%s' holds each %llu. frame, and not each %llu.",
                                      session->getPath().c_str(),
                                      static_cast<unsigned long long>(session->getFrameStride()),
                                      static_cast<unsigned long long>(m_stride)));
    uint64 numDropped = 0;
    for (zel::size_t i = table.size(); i-- > 0 && table[i].index >= frame; ++numDropped)
        session->setFrameHead(table[i].headerOffset);
    if (numDropped != 0)
        ZEL_LOG_INFO("Journal '" << session->getPath() << "' goes on from frame " << frame << ": "
                                 << numDropped << " frames are recorded again");
}

void Recorder::openJournal(bool resume) {
    m_presentJournal = journalOf(m_journalPath, m_journalNumber);
    const zel::ref_ptr<FileJournal> journal(new FileJournal(m_presentJournal, FileJournal::Tolerant));
    FileJournal::Session* session = nullptr;
    if (resume && journal->getNumSessions() != 0) {
        session = FileJournal::downcastSession(journal->getSessions().front());
        goBack(session);
    } else {
        session =
            journal->createNewFileSession(zel::Name(FileSystem::getFileWithoutExtension(m_presentJournal)));
    }
    if (session->getFrameHead() == zel::InvalidIndex) {
        std::istringstream scene(describeRun(m_root.get()));
        session->packSceneData(scene);
    }
    const zel::ref_ptr<Writer> writer(new Writer(journal.get(), session, m_sync));
    writer->setChecksums(m_writesChecksums);
    m_track = new Track(nullptr, writer.get());
    m_track->setFrameStride(m_stride);
    m_track->setMaxNumBytes(m_budget);
    m_track->start();
    m_capture->requestKeyFrame();
    m_journalBytes = 0;
    ++m_numJournals;
}

/// @return what has kept frames out of the journal
std::exception_ptr Recorder::endTrack() {
    const zel::ref_ptr<Track> track = std::exchange(m_track, nullptr);
    if (!track)
        return {};
    track->stop();
    const auto* session =
        FileJournal::downcastSession(static_cast<const Writer*>(track->getOutput())->getSession());
    if (!session->getFrameTable().empty())
        m_lastIndex = session->getFrameTable().back().index; // and not what was captured last
    return track->getException();
}

void Recorder::closeJournal() {
    const std::exception_ptr failure = endTrack();
    if (failure && m_message.empty())
        endWith(whatOf(failure));
}

// Running

zel::Component* Recorder::findRoot() {
    if (m_givenRoot)
        return m_givenRoot.get();
    auto* context = dynamic_cast<zel::Component*>(getContext());
    if (!m_rootPath.empty()) {
        auto* root = dynamic_cast<zel::Component*>(getAutoScopedResource(m_rootPath));
        if (root == nullptr)
            ZEL_THROW(std::runtime_error,
                      zel::String::format("%s: There is no component '%s' to be recorded.",
                                          getPath().c_str(),
                                          m_rootPath.c_str()));
        return root;
    }
    return context != nullptr ? context : zel::root();
}

void Recorder::findCondition() {
    m_condition = nullptr;
    if (m_conditionPath.empty())
        return;
    m_condition = dynamic_cast<Value*>(m_root->getResource(m_conditionPath));
    if (!m_condition || m_condition->getFormat() != getFormat("Bool"))
        ZEL_THROW(std::runtime_error,
                  zel::String::format("%s: The condition '%s' is no value of the type Bool.",
                                      getPath().c_str(),
                                      m_conditionPath.c_str()));
}

void Recorder::start() {
    stop();
    m_startsByItself = false;
    if (!m_clock)
        ZEL_THROW(std::runtime_error, getPath().str() + ": A recorder needs a clock.");
    if (m_journalPath.empty())
        ZEL_THROW(std::runtime_error, getPath().str() + ": A recorder needs the name of a journal.");
    m_root = findRoot();
    findCondition();
    prepareFiles();
    const bool standsInRoot = hasParent(m_root.get());
    m_keptRoot = standsInRoot ? nullptr : m_root.get();
    m_message.clear();
    m_omissions.clear();
    m_numFrames = m_numKeyFrames = m_numBytes = m_numJournals = m_lastBytes = 0;
    m_waitedSeconds = m_captureSeconds = 0;

    m_capture = new FrameCapture(m_root.get(), !standsInRoot);
    m_capture->setKeyFrameInterval(m_keyFrameInterval);
    for (const zel::ref_ptr<Frame::DataBinding>& binding : m_bindings->getDataBindings())
        m_capture->addDataBinding(binding.get());
    if (!m_bindings->getDataBindings().empty())
        m_root->traverse([this](zel::Object* object) {
            if (dynamic_cast<const RandomGenerator*>(object) != nullptr)
                m_capture->addDataBinding(object->getPath(m_root.get()), false);
        });
    m_capture->captureClocks(m_clock.get());
    try {
        openJournal(m_resume);
        if (isDue())
            capture();
    } catch (...) {
        stop();
        throw;
    }
    if (!isRecording())
        return; // ended by its own first frame
    m_omissions = m_capture->getOmissions();
    ZEL_LOG_INFO(
        "Recording " << (m_root->getPath().empty() ? zel::String("all") : "'" + m_root->getPath().str() + "'")
                     << " to '" << m_presentJournal << "'");
}

void Recorder::stop() {
    closeJournal();
    m_capture = nullptr;
    m_condition = nullptr;
    m_root = nullptr;
    m_keptRoot = nullptr;
}

bool Recorder::hasRoom(uint64 numBytes) {
    const uint64 needed = m_minFreeBytes + numBytes;
    const uint64 available = m_freeSpace ? m_freeSpace(m_presentJournal) : freeBytesOf(m_presentJournal);
    if (m_minFreeBytes == 0 || available >= needed)
        return true;
    endWith(zel::String::format("the disk has %llu bytes left, and %llu are needed.",
                                static_cast<unsigned long long>(available),
                                static_cast<unsigned long long>(needed)));
    return false;
}

void Recorder::capture() {
    const bool isFull = m_maxJournalBytes != 0 && m_journalBytes >= m_maxJournalBytes;
    const bool isLong =
        m_maxJournalTime > 0 &&
        m_clock->getTime() >= m_journalStart + m_maxJournalTime - TimeTolerance * m_clock->getTimeStep();
    if ((isFull || isLong) && m_journalBytes != 0) {
        closeJournal();
        if (!m_message.empty())
            return; // its end could not be written
        ++m_journalNumber;
        try {
            openJournal(false);
        } catch (...) {
            endWith(whatOf(std::current_exception()));
            return;
        }
    }
    if (!hasRoom(m_track->getNumQueuedBytes() + m_lastBytes))
        return;
    const SteadyTime::time_point wait = SteadyTime::now();
    const bool hasSlot = m_track->waitForFreeSlot();
    const SteadyTime::time_point begin = SteadyTime::now();
    m_waitedSeconds += std::chrono::duration<double>(begin - wait).count();
    if (!hasSlot)
        return; // the next tick tells why

    const zel::ref_ptr<Track> track(m_track);
    captureEvent.fire(this);
    if (m_track != track)
        return; // a callback has stopped the recording, or begun another
    const zel::ref_ptr<Frame> frame = m_capture->capture(m_clock.get());
    m_captureSeconds += secondsSince(begin);
    if (m_journalBytes == 0)
        m_journalStart = frame->getTimeStamp();
    m_lastIndex = frame->getIndex();
    m_lastBytes = frame->getNumBytes();
    m_journalBytes += m_lastBytes;
    m_numBytes += m_lastBytes;
    ++m_numFrames;
    m_numKeyFrames += frame->isKeyFrame() ? 1U : 0U;
    m_track->pushFrame(frame.get());
}

void Recorder::endWith(const zel::String& message) {
    (void)endTrack();
    m_message = zel::String::format("The recording to '%s' has ended behind frame %llu: %s",
                                    m_presentJournal.c_str(),
                                    static_cast<unsigned long long>(m_lastIndex),
                                    message.c_str());
    ZEL_LOG_WARNING(m_message);
    stop();
}

} // namespace zelData
