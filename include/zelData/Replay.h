#pragma once

#include <zel/Callback.h>
#include <zel/Clock.h>
#include <zel/Component.h>
#include <zel/Event.h>
#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/InvalidIndex.h>
#include <zel/Object.h>
#include <zel/Path.h>
#include <zel/String.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelData/FileFrameReader.h>
#include <zelData/FileJournal.h>
#include <zelData/FrameApply.h>

#include <cmath>
#include <functional>
#include <memory>

namespace zelData {

class RunStateReader;

/// Plays a journal into a live tree: in order, forwards and backwards, by jumps, and at the pace of a clock
/// on the wall.
///
///     const zel::ref_ptr<Replay> replay(new Replay("run.journal", model));
///     while (replay->next())
///         draw();
///
/// The tree has the components, values, buffers and storages that were recorded: it is mostly made from the
/// same model file. What it lacks is told once: see getOmissions.
///
/// With each frame the clocks come back to where they were, with all that they had scheduled: whoever ticks
/// then goes on with the run as if it had never ended.
///
///     replay->applyFrame(500);
///     clock->tick(); // makes frame 501
///
/// Each frame that follows the one before it is applied as it was recorded, and tells only what has changed:
/// whoever has ticked, or changed the tree in another way, jumps.
///
/// A journal may grow meanwhile: its new frames are found at the end of those that are known. One that is
/// damaged is played up to the first fault.
///
/// Owned through ref_ptr.
/// @threads owner thread of the tree: between task executions
/// @cost a frame in order: its bytes are read and copied. A jump, and each step backwards: the frames since
///     the last key frame are read and merged
class ZEL_CORE_API Replay : public zel::Object {
public:
    /// @param root   where the paths of frames begin, as the root of the recorder; null for the root of the
    ///     system. Kept alive
    /// @param clock  one that was recorded and does not lie below the root; not kept alive
    /// @throws std::runtime_error  for a file that is no journal, or has no session
    explicit Replay(const zel::String& journal, zel::Component* root = nullptr, zel::Clock* clock = nullptr);
    ~Replay() override;

    /// What of the frames goes where: see FrameApply. Without bindings all does.
    void addDataBinding(const zel::Path& path, bool recursive) {
        m_isInOrder = false;
        m_apply->addDataBinding(path, recursive);
    }
    void addDataBinding(const zel::Path& internalPath, const zel::Path& externalPath, bool recursive) {
        m_isInOrder = false;
        m_apply->addDataBinding(internalPath, externalPath, recursive);
    }
    /// Whether clocks come back to where they were; else they stay as they are, but for values that are
    /// bound. True at first.
    void setRestoreClocks(bool restore) noexcept {
        m_isInOrder = false;
        m_restoresClocks = restore;
    }

    // Where it stands

    /// InvalidIndex ahead of the first frame that is applied.
    [[nodiscard]] zel::uint64 getFrame() const noexcept { return m_frame; }
    /// Simulation time: that of the frame, or what update has come to since.
    [[nodiscard]] double getTime() const noexcept { return m_time; }
    [[nodiscard]] FileJournal::Session* getSession() const noexcept { return m_session.get(); }
    /// See FileJournal::Session.
    [[nodiscard]] bool isClosed() const noexcept { return m_session->isClosed(); }

    // These apply a frame.
    // They throw std::runtime_error for one that is damaged, or holds a table of ids that is none, and what
    // listeners of the tree throw.

    /// @return false, with nothing changed, if there is none of the number
    bool applyFrame(zel::uint64 index);
    /// The frame of the number, or the last one ahead of it.
    /// @return false if there is none
    bool jumpToFrame(zel::uint64 index);
    /// The frame that is nearest to the time.
    /// @return false if there is none
    bool jumpToTime(double time);
    /// The frame behind the present one, the first one at the beginning.
    /// @return false at the end
    bool next();
    /// The frame ahead of the present one, the last one at the beginning.
    /// @return false at the first frame
    bool previous();

    // Playing

    /// How many seconds of simulation time go by in one second; below 0 it plays backwards, and an infinite
    /// rate takes one frame after another. 0, and what is no number, for a halt. 1 at first.
    void setRate(double rate) noexcept { m_rate = std::isnan(rate) ? 0 : rate; }
    [[nodiscard]] double getRate() const noexcept { return m_rate; }
    /// Whether to wait at the end of a journal that is not closed, for frames that are still to come.
    void setFollow(bool follow) noexcept { m_follow = follow; }
    /// Applies the frame that is due after some seconds of the wall. Frames in between are passed over.
    /// @param seconds  since the last call
    /// @return false at the end
    bool update(double seconds);
    /// Plays to the end, at the rate.
    /// @param goesOn  asked ahead of each step; what it does between frames may take its time
    void play(const std::function<bool()>& goesOn = {});

    /// Takes in what has been written to the journal meanwhile; next does so at the end.
    /// @return the number of frames that are new
    zel::uint64 refresh();
    /// What was not written, one entry for each: "'PATH' is not replayed: REASON".
    [[nodiscard]] zel::Vector<zel::String> getOmissions() const;

    /// Fires with each frame, once it is applied: for those who keep a state elsewhere.
    zel::EventT<zel::Callback1<Replay*>> applyEvent;

private:
    /// The frame that lies so many frames away; InvalidIndex if there is none.
    [[nodiscard]] zel::uint64 neighbour(zel::int64 step) const;
    [[nodiscard]] double stampOf(zel::uint64 index) const;
    void show(zel::uint64 index);
    bool step(zel::int64 step);

    zel::ref_ptr<FileJournal> m_journal;
    zel::ref_ptr<FileJournal::Session> m_session;
    zel::ref_ptr<FileFrameReader> m_reader;
    zel::ref_ptr<FrameApply> m_apply;
    std::unique_ptr<RunStateReader> m_runState;
    zel::Vector<zel::String> m_omissions; // of clocks
    bool m_restoresClocks = true;
    zel::uint64 m_frame = zel::InvalidIndex;
    bool m_isInOrder = false; // whether the tree shows all of the frame that is asked for
    double m_time = 0;
    double m_rate = 1;
    bool m_follow = false;
};

} // namespace zelData
