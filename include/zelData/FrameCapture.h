#pragma once

#include <zel/Component.h>
#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/String.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelData/Frame.h>
#include <zelData/FrameIO.h>

#include <memory>

namespace zel {
class Clock;
} // namespace zel

namespace zelData {

class CaptureTree;
class CaptureWork;
class RunStateWriter;

/// Takes frames of a live tree: a key frame with all that is bound, and from then on what has changed since
/// the frame before.
///
///     const zel::ref_ptr<FrameCapture> capture(new FrameCapture(zel::root()));
///     capture->addDataBinding("Simulation", true); // all below it, under the same path in the frame
///     for (;;) {
///         clock->tick();
///         track->pushFrame(capture->capture(clock).get());
///     }
///
/// Of a binding, the internal path says where in the tree the data are, and the external one where they stand
/// in the frame. One that is not recursive takes a value, a buffer, a storage with its columns, or a
/// component's own values and buffers. Without bindings, all of the tree is taken.
///
/// A frame between key frames holds each value that has changed; of a buffer or column in which fewer than
/// half of the elements have changed those, and any other one in whole; each storage whose size, capacity,
/// order or ids have changed, with its tables of ids; and what has happened to storages, as events. Frames
/// refer to nothing in the tree: handles hold the object ids of their storages (see Frame::isSerialized), and
/// texts and handles of values stand as buffers of one element.
///
/// A frame is a key frame where one is due; where an increment would be larger; and where no increment can
/// tell what has happened: something that was told has gone or become empty, or has got another format, or
/// the bindings are others.
///
/// What no frame can hold is left out, and listed once: see getOmissions.
///
/// Owned through ref_ptr.
/// @threads owner thread of the tree: between task executions. Comparing and copying run on all threads of
///     the system. The frames are the caller's, and may go to any thread
/// @cost a copy of all that is bound is kept, and the memory of two more for columns that are told in whole
///     again and again. A frame: each element is compared with that copy, and those that have changed are
///     copied twice
class ZEL_CORE_API FrameCapture : public FrameIO {
public:
    static constexpr zel::uint64 DefaultKeyFrameInterval = 100;

    /// @param root       where the internal paths begin
    /// @param keepsRoot  whether it is kept alive: not by one whom it owns
    explicit FrameCapture(zel::Component* root, bool keepsRoot = true);
    ~FrameCapture() override;

    /// Each n-th frame is a key frame, the first one in any case; 0 for no more than need be.
    void setKeyFrameInterval(zel::uint64 n) noexcept { m_keyFrameInterval = n; }
    [[nodiscard]] zel::uint64 getKeyFrameInterval() const noexcept { return m_keyFrameInterval; }
    /// The next frame is a key frame: for one who throws a frame away, or begins a new session.
    void requestKeyFrame() noexcept { m_wantsKeyFrame = true; }

    /// Frames also tell, in the component "_runState", where the clocks below the root and this one stand:
    /// without that, a run does not go on from a frame. The clock is not kept alive. See docs/recording.md.
    void captureClocks(zel::Clock* clock);

    /// A frame of what there is now. After an exception the next one is a key frame.
    /// @throws std::bad_alloc, and what the tasks of other threads throw meanwhile
    [[nodiscard]] zel::ref_ptr<Frame> capture(zel::uint64 index, double timeStamp, double timeStep);
    /// The same with the frame, time and step of the clock.
    [[nodiscard]] zel::ref_ptr<Frame> capture(zel::Clock* clock);

    /// What has been left out, one entry for each: "'PATH' is not recorded: REASON", with the path in the
    /// tree. Each is a warning, too, when it is met for the first time.
    [[nodiscard]] const zel::Vector<zel::String>& getOmissions() const noexcept { return m_omissions; }
    /// The memory that is kept from frame to frame, in bytes.
    [[nodiscard]] zel::uint64 getMemory() const;

private:
    [[nodiscard]] zel::ref_ptr<Frame> fill(zel::ref_ptr<Frame> frame);
    void omit(const zel::Path& path, const zel::String& reason);

    zel::ref_ptr<zel::Component> m_keptRoot;
    zel::Component* m_root;
    zel::uint64 m_keyFrameInterval = DefaultKeyFrameInterval;
    bool m_wantsKeyFrame = true;     // the shadows, or those who read, do not know what was told
    zel::uint64 m_numIncrements = 0; // since the last key frame
    zel::Vector<zel::String> m_omissions;
    std::unique_ptr<CaptureTree> m_tree;
    std::unique_ptr<CaptureWork> m_work;
    std::unique_ptr<RunStateWriter> m_runState; // null where clocks are not told
};

} // namespace zelData
