#pragma once

#include <zel/Callback.h>
#include <zel/Clock.h>
#include <zel/Component.h>
#include <zel/Event.h>
#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Path.h>
#include <zel/String.h>
#include <zel/Vector.h>
#include <zel/observer_ptr.h>
#include <zel/ref_ptr.h>
#include <zelData/FileJournal.h>
#include <zelData/FrameCapture.h>
#include <zelData/FrameIO.h>

#include <exception>
#include <functional>
#include <limits>
#include <utility>

namespace zelData {

class Track;
class Value;

/// Records a run: the frames of a clock become a journal. In a model file it is one element, which records
/// the component that it stands in from the first tick on:
///
///     <Recorder name="recorder" clock="clock" journal="run.journal"/>
///
/// In a program it is one line:
///
///     const zel::ref_ptr<Recorder> recorder = Recorder::record(clock, "run.journal", model.get());
///
/// The first frame is the state ahead of the first tick; the others are taken when a tick has ended. A frame
/// has the number that the clock has then. What is captured is said by data bindings, as for FrameCapture,
/// and is all below the root without any. Each frame also holds the component "_runState": the times, frames
/// and schedules of the clocks, without which a run does not go on from there. See docs/recording.md.
///
/// The clock's thread captures, a thread of its own writes. No frame is dropped: when the frames that wait
/// for the disk use up the budget, the clock waits. Where the journal can not be written, the recording ends
/// and the run goes on; a warning tells why, once, and so does getMessage().
///
/// Settings are for the next start. Owned through ref_ptr; a recorder that ends, or leaves the tree of its
/// root, stops.
/// @threads the thread that ticks the clock
class ZEL_CORE_API Recorder : public zel::Component {
public:
    /// The bytes that are free on the disk of a path; for tests.
    using FreeSpace = std::function<zel::uint64(const zel::String& path)>;

    static constexpr zel::uint64 DefaultBudget = 268'435'456;
    static constexpr zel::uint64 DefaultMinFreeBytes = 16'777'216;

    explicit Recorder(const zel::Name& name = zel::Name("Recorder"));
    ~Recorder() override;

    /// Makes a recorder and starts it.
    /// @param root  what is recorded; null for the root of the system
    /// @throws what start throws
    [[nodiscard]] static zel::ref_ptr<Recorder>
    record(zel::Clock* clock, const zel::String& journal, zel::Component* root = nullptr);

    /// See docs/model-files.md.
    /// @throws std::runtime_error with file and row
    void configure(TiXmlElement* element) override;
    using zel::Component::configure;
    /// Looks for the clock that the model file names.
    void rebind() override;
    /// A recorder that leaves its component stops.
    void setContext(zel::Object* context) override;
    [[nodiscard]] static zel::Model* ClassModel();
    [[nodiscard]] static Recorder* load(TiXmlElement* element, zel::Device* device);
    using zel::Component::load;

    // What is recorded

    /// The clock is not kept alive.
    void setClock(zel::Clock* clock);
    [[nodiscard]] zel::Clock* getClock() const noexcept { return m_clock.get(); }
    /// Where the paths of the bindings begin. Without one, the component that the recorder stands in; without
    /// that, the root of the system. Kept alive while recording, unless the recorder stands in it.
    void setRoot(zel::Component* root) { m_givenRoot = root; }
    /// As those of FrameCapture.
    void addDataBinding(const zel::Path& path, bool recursive) {
        m_bindings->addDataBinding(path, recursive);
    }
    void addDataBinding(const zel::Path& internalPath, const zel::Path& externalPath, bool recursive) {
        m_bindings->addDataBinding(internalPath, externalPath, recursive);
    }
    void loadDataBindings(const zel::String& file) { m_bindings->loadDataBindings(file); }

    // When

    /// As FrameCapture::setKeyFrameInterval.
    void setKeyFrameInterval(zel::uint64 n) noexcept { m_keyFrameInterval = n; }
    /// Records the frames whose number is a multiple of this. At least 1, which is verified.
    void setStride(zel::uint64 stride);
    /// Records from the one simulation time to the other, both among them. Behind the end the recording
    /// stops.
    void setTimeWindow(double start, double end) noexcept;
    /// Records while the value below the root holds true: of the type Bool. Empty for always.
    void setCondition(const zel::Path& path) { m_conditionPath = path; }

    // Where to

    void setJournal(const zel::String& path) { m_journalPath = path; }
    /// Goes on in the journal where the clock stands: its frames from the present one on are dropped. A
    /// journal that was never closed will do. Without one, a new one is made.
    void setResume(bool resume) noexcept { m_resume = resume; }
    /// Removes a journal of the name, with those that follow it. Without this, it is refused.
    void setReplace(bool replace) noexcept { m_replace = replace; }
    /// Goes on in another journal once the frames of the present one hold so many bytes; 0 for one only.
    /// Those that follow "run.journal" are "run-1.journal", "run-2.journal". Each begins with a key frame and
    /// stands by itself.
    void setMaxJournalBytes(zel::uint64 n) noexcept { m_maxJournalBytes = n; }
    /// The same after so many seconds of simulation time; 0 for one only.
    void setMaxJournalTime(double seconds) noexcept { m_maxJournalTime = seconds; }
    /// How many bytes of frames may wait for the disk; 0 for no bound.
    void setBudget(zel::uint64 n) noexcept { m_budget = n; }
    /// Ends the recording, with the journal closed, while the disk has so much room left; 0 for not at all.
    void setMinFreeBytes(zel::uint64 n) noexcept { m_minFreeBytes = n; }
    /// Has each frame on the disk, and not only with the system, before the next one is written: for those
    /// who fear for the machine, and not only for the process.
    void setSync(bool sync) noexcept { m_sync = sync; }
    /// As FileFrameWriter::setChecksums: `zel journal verify` then finds bytes that have changed, too.
    void setChecksums(bool flag) noexcept { m_writesChecksums = flag; }
    void setFreeSpace(FreeSpace freeSpace) { m_freeSpace = std::move(freeSpace); }

    // Running

    /// Opens the journal and records the present state.
    /// @throws std::runtime_error  without a clock or a journal's name, for a condition that is no Bool, and
    ///     where the journal can not be made, or is there already
    void start();
    /// Records nothing more. Returns when all is written and the journal is closed.
    void stop();
    [[nodiscard]] bool isRecording() const noexcept { return m_track != nullptr; }
    /// Why the recording has ended by itself; empty if it has not.
    [[nodiscard]] const zel::String& getMessage() const noexcept { return m_message; }

    /// Fires ahead of each capture: for those who keep a state elsewhere, to put it where it is captured.
    zel::EventT<zel::Callback1<Recorder*>> captureEvent;

    // Statistics, since the last start

    [[nodiscard]] zel::uint64 getNumFrames() const noexcept { return m_numFrames; }
    [[nodiscard]] zel::uint64 getNumKeyFrames() const noexcept { return m_numKeyFrames; }
    /// The payload of the frames, in bytes.
    [[nodiscard]] zel::uint64 getNumBytes() const noexcept { return m_numBytes; }
    [[nodiscard]] zel::uint64 getNumJournals() const noexcept { return m_numJournals; }
    /// For how long the clock has waited for the disk.
    [[nodiscard]] double getWaitedSeconds() const noexcept { return m_waitedSeconds; }
    /// For how long it has captured.
    [[nodiscard]] double getCaptureSeconds() const noexcept { return m_captureSeconds; }
    /// The journal that is being written, or was last.
    [[nodiscard]] const zel::String& getPresentJournal() const noexcept { return m_presentJournal; }
    /// See FrameCapture::getOmissions; what there was at the start.
    [[nodiscard]] const zel::Vector<zel::String>& getOmissions() const noexcept { return m_omissions; }

    /// The name of the n-th journal of a series: "run.journal", "run-1.journal" and so on.
    [[nodiscard]] static zel::String journalOf(const zel::String& path, zel::uint64 n);

private:
    class Writer;

    void beginTick();
    void endTick();
    void attach(zel::Clock* clock);
    void detach();
    [[nodiscard]] zel::Component* findRoot();
    void findCondition();
    [[nodiscard]] bool isDue() const;
    void prepareFiles();
    /// The last journal of the series that is there.
    [[nodiscard]] zel::uint64 lastOfSeries() const;
    void openJournal(bool resume);
    [[nodiscard]] std::exception_ptr endTrack();
    void closeJournal();
    void goBack(FileJournal::Session* session) const;
    void capture();
    [[nodiscard]] bool hasRoom(zel::uint64 numBytes);
    void endWith(const zel::String& message);

    // Settings
    zel::observer_ptr<zel::Clock> m_clock;
    zel::observer_ptr<zel::Component> m_givenRoot;
    zel::ref_ptr<FrameIO> m_bindings;
    zel::uint64 m_keyFrameInterval = FrameCapture::DefaultKeyFrameInterval;
    zel::uint64 m_stride = 1;
    double m_start = -std::numeric_limits<double>::infinity();
    double m_end = std::numeric_limits<double>::infinity();
    zel::Path m_conditionPath;
    zel::String m_journalPath;
    bool m_resume = false;
    bool m_replace = false;
    bool m_sync = false;
    bool m_writesChecksums = false;
    zel::uint64 m_maxJournalBytes = 0;
    double m_maxJournalTime = 0;
    zel::uint64 m_budget = DefaultBudget;
    zel::uint64 m_minFreeBytes = DefaultMinFreeBytes;
    FreeSpace m_freeSpace;
    // Of model files
    zel::Path m_clockPath;
    zel::Path m_rootPath;
    bool m_startsByItself = false;

    // Of the present recording
    zel::ref_ptr<zel::Component> m_keptRoot; // null while the recorder stands in it
    zel::observer_ptr<zel::Component> m_root;
    zel::ref_ptr<Value> m_condition;
    zel::uint64 m_preTick = 0;
    zel::uint64 m_postTick = 0;
    zel::ref_ptr<FrameCapture> m_capture;
    zel::ref_ptr<Track> m_track;
    zel::uint64 m_numJournals = 0;
    zel::uint64 m_journalNumber = 0;
    zel::String m_presentJournal;
    zel::uint64 m_journalBytes = 0;
    double m_journalStart = 0;   // simulation time
    zel::uint64 m_lastIndex = 0; // of the frame captured last; once a journal is closed, written last
    zel::uint64 m_lastBytes = 0;
    zel::uint64 m_numFrames = 0;
    zel::uint64 m_numKeyFrames = 0;
    zel::uint64 m_numBytes = 0;
    double m_waitedSeconds = 0;
    double m_captureSeconds = 0;
    zel::Vector<zel::String> m_omissions;
    zel::String m_message;
};

} // namespace zelData
