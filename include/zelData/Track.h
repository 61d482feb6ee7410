#pragma once

#include <zel/Callback.h>
#include <zel/Event.h>
#include <zel/Export.h>
#include <zel/HashSet.h>
#include <zel/Integers.h>
#include <zel/InvalidIndex.h>
#include <zel/LockRank.h>
#include <zel/Object.h>
#include <zel/ref_ptr.h>
#include <zelData/Frame.h>
#include <zelData/FrameIO.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>

namespace zelData {

/// A pipe for frames. At one end stands a reader, or somebody who pushes; at the other one a writer, or
/// somebody who pops. In between lies a queue, and behind a reader a cache of the frames that have been
/// passed on already. Each end that has a stream object runs on a thread of its own, unless the object says
/// otherwise: a recording track has a writer, a replaying one a reader, and one with both copies.
///
///     reader -> [input thread] -> queue, cache -> [output thread] -> writer
///
/// Both threads live from start() to stop(). stop() lets the writer have all that is queued; nothing is lost
/// but by flush(true), by a jump, or when an end has failed: an exception on one of the threads goes to the
/// exception handler, ends the stream, and from then on nothing is pushed or popped.
/// @threads any thread, but for construction, destruction, start, stop and the setters of ends and handlers:
///     owner thread. A writer may stop its track; a reader may read its counters and stride. Callbacks of the
///     two events run under the lock of the queue: they may read the counters and nothing else of the track
class ZEL_CORE_API Track : public zel::Object {
public:
    using FrameEvent = zel::EventT<zel::Callback1<Frame*>>;
    using ExceptionHandler = zel::Callback2<Track*, std::exception&>;

    /// Stored, without effect.
    enum RealModeEnum : zel::uint32 { RealModeOff = 0, RealModeOn = 1 };

    class FrameCache;

    explicit Track(const zel::Name& name = "Track");
    Track(FrameReader* input, FrameWriter* output);
    /// As stop(), without waiting for anybody who pops.
    ~Track() override;

    /// A track has one input and one output in its life, which is verified.
    void setInput(FrameReader* input);
    void setOutput(FrameWriter* output);
    [[nodiscard]] FrameReader* getInput() const noexcept { return m_input.get(); }
    [[nodiscard]] FrameWriter* getOutput() const noexcept { return m_output.get(); }

    // Running

    /// Begins anew, whatever has failed before.
    void start();
    /// Ends the input, lets the output write what is queued, and waits for both; not on one of the track's
    /// own threads. From then on, until the next start, pushes are dropped and pops give null.
    void stop();
    [[nodiscard]] bool isRunning() const noexcept { return m_running.load(std::memory_order_acquire); }
    /// Waits until the queue is empty and, with an output on a thread, all is written and forceFlush has been
    /// called. Does not wait while the track is stopped, has failed, or loops.
    /// @param interrupt  drops what is queued in place of waiting
    /// @param rewind     lets the reader go back to the oldest frame that was dropped
    void flush(bool interrupt, bool rewind);
    void flush(bool interrupt) { flush(interrupt, false); }
    /// What has ended the track: null while all is well.
    [[nodiscard]] std::exception_ptr getException() const;
    /// Called on the thread that fails, ahead of the end of the stream.
    void setExceptionHandler(ExceptionHandler handler) { m_exceptionHandler = std::move(handler); }
    [[nodiscard]] const ExceptionHandler& getExceptionHandler() const noexcept { return m_exceptionHandler; }

    // Frames

    /// Appends a frame to the queue, whatever the budget; see waitForFreeSlot. Waits while the frame still
    /// stands in the queue. A track that was stopped, has failed, or waits for the frame of a jump drops it.
    void pushFrame(Frame* frame);
    /// Takes the oldest frame. With an input that has no thread, the caller reads.
    /// @param block  whether to wait for one
    /// @return null if there is none, at the end, and on a track that was stopped or has failed. While frames
    ///     are expanded, the frame is valid until the next one is popped
    zel::ref_ptr<Frame> popFrame(bool block);
    /// Waits until the frames of the track take no more than the budget.
    /// @return false if the track was stopped, or has failed
    bool waitForFreeSlot();
    void clearQueue();
    [[nodiscard]] bool isQueueEmpty() const noexcept { return getNumQueuedFrames() == 0; }
    [[nodiscard]] zel::uint64 getNumQueuedFrames() const noexcept { return m_numQueuedFrames.load(); }
    [[nodiscard]] zel::uint64 getNumQueuedBytes() const noexcept { return m_numQueuedBytes.load(); }
    [[nodiscard]] zel::uint64 getNumCachedFrames() const;
    [[nodiscard]] zel::uint64 getNumCachedBytes() const;
    /// All that were pushed.
    [[nodiscard]] zel::uint64 getNumFrames() const noexcept { return m_numFrames.load(); }
    [[nodiscard]] zel::uint64 getTotalBytes() const noexcept { return m_totalBytes.load(); }
    /// Of the last measurement, in KiB a second.
    [[nodiscard]] double getDataRate() const noexcept { return m_dataRate.load(); }
    /// The budget in bytes; 0 for none.
    [[nodiscard]] zel::uint64 getMaxNumBytes() const;
    void setMaxNumBytes(zel::uint64 n);
    /// Takes the frames that the other track has in its cache, which both then share. Both read the same
    /// session with the same bindings; with different strides it takes none.
    void loadCache(Track* other);
    [[nodiscard]] double getCacheHitRate() const;
    [[nodiscard]] bool isEOF() const;
    /// Whether the next frame is that of a jump.
    [[nodiscard]] bool isJumpPending() const noexcept { return m_jumpPending.load(); }

    // Where the reader goes

    /// Drops what is queued and lets the reader go on at the frame.
    /// @return whether there is such a frame
    bool jumpToFrame(zel::uint64 index);
    /// The same at the frame nearest to the time; below 0 at the first one.
    bool jumpToTime(double time);
    /// Reads each stride-th frame from now on; a writer on a session with frames must keep to its stride.
    void setFrameStride(zel::uint64 stride);
    [[nodiscard]] zel::uint64 getFrameStride() const noexcept { return m_frameStride.load(); }
    /// Chooses the stride that comes nearest to so many frames a unit of simulation time.
    /// @return the frequency that results; -1, without a change, if the frequency is not above 0, and -1 with
    ///     a stride of 1 if the step of the session is not known
    double setFrameFrequency(double frequency);
    /// Whether the reader begins anew at the end. To enable it goes to frame 0.
    void setEnableLooping(bool enable);
    [[nodiscard]] bool getEnableLooping() const noexcept { return m_loopingEnabled.load(); }
    /// The simulation times between which frames are read, the end not among them; below 0 for no bound.
    void setActiveTimeRangeStart(double time) noexcept { m_activeTimeRangeStart = time; }
    void setActiveTimeRangeEnd(double time) noexcept { m_activeTimeRangeEnd = time; }
    [[nodiscard]] double getActiveTimeRangeStart() const noexcept { return m_activeTimeRangeStart; }
    [[nodiscard]] double getActiveTimeRangeEnd() const noexcept { return m_activeTimeRangeEnd; }
    void setRealMode(RealModeEnum mode) noexcept { m_realMode = mode; }
    [[nodiscard]] RealModeEnum getRealMode() const noexcept { return m_realMode; }
    /// Whether each frame that is popped shows all data, and not only what has changed.
    void setExpandFrames(bool expand) noexcept { m_expandFrames = expand; }
    [[nodiscard]] bool getExpandFrames() const noexcept { return m_expandFrames; }

    [[nodiscard]] static zel::Model* ClassModel();

    /// Fire once for each frame.
    FrameEvent pushFrameEvent;
    FrameEvent popFrameEvent;

private:
    class Thread;
    friend class Thread;

    using QueueMutex = zel::RankedMutex<zel::LockRank::TrackQueue>;
    using QueueLock = std::unique_lock<QueueMutex>;

    /// A frame in the queue, and what it counted when it entered: others may change it meanwhile.
    struct Queued {
        zel::ref_ptr<Frame> frame;
        zel::uint64 numBytes;
    };

    // The caller of those whose name begins with "_" holds the lock of the queue.
    void _pushFrame(Frame* frame);
    [[nodiscard]] zel::ref_ptr<Frame> _popFrame();
    [[nodiscard]] zel::ref_ptr<Frame> _takeOff(bool newest);
    void _expand(zel::ref_ptr<Frame>& frame);
    void _dropQueue();
    [[nodiscard]] bool _makeRoom();
    [[nodiscard]] bool _waitForFreeSlot();
    [[nodiscard]] bool _isInterrupted() const { return m_interrupted || m_exception != nullptr; }
    void _signalEOF();
    void _resetEOF();
    void _notifyAll();
    bool _jump(const std::function<bool(FrameReader*)>& jump);
    void _setFrameStride(zel::uint64 stride);
    void _updateDataRate(const Frame* frame);
    /// One turn of the reader, which gives the lock back meanwhile.
    void readTurn(QueueLock& lock);
    void endRound(zel::uint64 frameIndex);
    /// Tells the writer of the end, once.
    void endOutput(QueueLock& lock);
    void readFrames();
    void writeFrames();
    void fail(const std::exception_ptr& exception);

    // Guarded by m_queueMutex, but for the atomic ones and what only the owner sets.
    std::deque<Queued> m_queue; // the oldest in front
    zel::HashSet<Frame*> m_queuedFrames;
    std::unique_ptr<FrameCache> m_cache;
    std::atomic<zel::uint64> m_numQueuedFrames{0};
    std::atomic<zel::uint64> m_numQueuedBytes{0};
    zel::ref_ptr<FrameReader> m_input;
    zel::ref_ptr<FrameWriter> m_output;
    mutable QueueMutex m_queueMutex;
    zel::RankedMutex<zel::LockRank::TrackOutput> m_ioMutex;   // while the writer is at work
    zel::RankedMutex<zel::LockRank::TrackInput> m_inputMutex; // while the reader is asked
    std::condition_variable m_frameAvailable;                 // a frame, the end, or an interruption
    std::condition_variable m_slotAvailable;                  // a frame has left or is written, or the same
    std::unique_ptr<Thread> m_inputThread;
    std::unique_ptr<Thread> m_outputThread;
    std::atomic<zel::uint64> m_totalBytes{0};
    std::atomic<zel::uint64> m_numFrames{0};
    bool m_eof = false;
    std::atomic<bool> m_loopingEnabled{false};
    std::atomic<bool> m_jumpPending{false};
    std::atomic<bool> m_running{false};
    RealModeEnum m_realMode = RealModeOn;
    std::atomic<double> m_dataRate{0};
    zel::uint64 m_rateBytes = 0;
    std::chrono::steady_clock::time_point m_rateStart;
    bool m_rateRunning = false;
    std::atomic<zel::uint64> m_frameStride{1};
    std::atomic<double> m_activeTimeRangeStart{-1};
    std::atomic<double> m_activeTimeRangeEnd{-1};
    std::exception_ptr m_exception;
    std::atomic<bool> m_expandFrames{false};
    zel::ref_ptr<Frame> m_expandedFrame;
    ExceptionHandler m_exceptionHandler;

    bool m_interrupted = false;   // from stop to start
    bool m_stopping = false;      // the output thread ends when the queue is empty
    bool m_inputActive = true;    // the reader is not at its end
    bool m_endSignalled = false;  // the writer has heard of the end
    bool m_writing = false;       // a frame is with the writer
    bool m_roundHasFrames = true; // since the reader has begun anew
    // The frame that is being read, or waits for its place in the queue.
    std::atomic<zel::uint64> m_underWay{zel::InvalidIndex};
};

} // namespace zelData
