#include "FrameCache.h"
#include "TrackThread.h"
#include "threads/SignalBlock.h"

#include <zel/Log.h>
#include <zel/Thread.h>
#include <zel/Verify.h>
#include <zelData/Track.h>

#include <cxxabi.h>

#include <utility>

// The two threads of a track, from start to stop.

namespace zelData {

namespace {

/// The track whose thread this is.
constinit thread_local const Track* t_track = nullptr;

} // namespace

void Track::Thread::run() {
    t_track = m_track;
    zel::Thread::registerAsZelThread();
    try {
        (m_track->*m_execute)();
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (...) {
        m_track->fail(std::current_exception());
    }
    zel::Thread::unregisterAsZelThread();
}

void Track::Thread::begin() {
    zelVerifyNAs(!m_started,
                 "!m_running",
                 "[%p : %s]: Thread is already started",
                 static_cast<const void*>(this),
                 m_name);
    const zel::SignalBlock signalsWait; // the thread takes this over: handlers run on those of the program
    m_started = start();
}

void Track::Thread::end() {
    if (!std::exchange(m_started, false))
        return;
    const bool validJoin = join();
    zelVerifyN(validJoin, "Thread join failed");
}

Track::~Track() {
    stop();
    const QueueLock lock(m_queueMutex);
    _dropQueue();
    m_cache->clear();
}

void Track::start() {
    const bool readsFrames = m_input && m_input->isThreaded();
    const bool writesFrames = m_output && m_output->isThreaded();
    if (readsFrames && !m_inputThread)
        m_inputThread = std::make_unique<Thread>(this, "InputThread", &Track::readFrames);
    if (writesFrames && !m_outputThread)
        m_outputThread = std::make_unique<Thread>(this, "OutputThread", &Track::writeFrames);
    if (!isRunning()) {
        // Those that have stopped the track themselves have still to be joined.
        if (m_inputThread)
            m_inputThread->end();
        if (m_outputThread)
            m_outputThread->end();
    }
    {
        const QueueLock lock(m_queueMutex);
        if (!m_running) {
            m_interrupted = false;
            m_stopping = false;
            m_exception = nullptr;
            _resetEOF();
        }
        m_running = true;
    }
    if (m_inputThread)
        m_inputThread->begin();
    if (m_outputThread)
        m_outputThread->begin();
}

void Track::stop() {
    const bool isOwnThread = t_track == this;
    {
        const QueueLock lock(m_queueMutex);
        m_running = false;
        m_interrupted = true;
        if (isOwnThread) {
            m_stopping = true;
            m_eof = true;
        }
        _notifyAll();
    }
    if (isOwnThread)
        return;
    if (m_inputThread)
        m_inputThread->end();
    {
        const QueueLock lock(m_queueMutex);
        m_stopping = true;
        _signalEOF();
    }
    if (m_outputThread)
        m_outputThread->end();
}

void Track::flush(bool interrupt, bool rewind) {
    QueueLock lock(m_queueMutex);
    if (interrupt) {
        const bool rewinds = rewind && m_input && !m_queue.empty();
        const zel::uint64 oldest = m_queue.empty() ? 0 : m_queue.front().frame->getIndex();
        _dropQueue();
        if (rewinds)
            (void)_jump([oldest](FrameReader* input) { return input->jumpToFrame(oldest); });
        return;
    }
    const auto mayReturn = [this] { return !m_running || m_exception != nullptr || m_loopingEnabled; };
    m_queueMutex.wait(m_slotAvailable, [&] {
        const bool isRead = !m_input || !m_inputActive;
        return mayReturn() || (m_queue.empty() && !m_writing && isRead);
    });
    if (mayReturn() || !m_output || !m_output->isThreaded())
        return;
    lock.unlock();
    const std::lock_guard ioLock(m_ioMutex);
    m_output->forceFlush();
}

std::exception_ptr Track::getException() const {
    const QueueLock lock(m_queueMutex);
    return m_exception;
}

void Track::fail(const std::exception_ptr& exception) {
    try {
        std::rethrow_exception(exception);
    } catch (std::exception& error) {
        try {
            if (m_exceptionHandler)
                m_exceptionHandler(this, error);
        } catch (...) { // the first one is what has ended the track, and what getException tells
        }
    } catch (...) { // of a kind that nobody can be told of
    }
    const QueueLock lock(m_queueMutex);
    if (m_exception == nullptr)
        m_exception = exception;
    m_writing = false;
    m_inputActive = false;
    _signalEOF();
}

// Reading

void Track::readFrames() {
    QueueLock lock(m_queueMutex);
    for (;;) {
        m_queueMutex.wait(m_slotAvailable, [this] { return _isInterrupted() || m_inputActive; });
        if (_isInterrupted())
            return;
        if (_waitForFreeSlot() && m_inputActive)
            readTurn(lock);
    }
}

void Track::readTurn(QueueLock& lock) {
    /// The frame is on its way from the reader to the queue as long as this lives.
    struct UnderWay {
        explicit UnderWay(Track* owner) : track(owner) {}
        UnderWay(const UnderWay&) = delete;
        UnderWay& operator=(const UnderWay&) = delete;
        ~UnderWay() { track->m_underWay = zel::InvalidIndex; }
        Track* track;
    };
    const UnderWay underWay(this);
    (void)_makeRoom();
    zel::uint64 next = 0;
    zel::ref_ptr<Frame> frame;
    {
        // The next jump waits here until this frame is read, and then finds its way into the push below.
        const std::lock_guard inputLock(m_inputMutex);
        m_underWay = next = m_input->getNextFrameIndex();
        const bool jumps = m_jumpPending.exchange(false);
        if (!jumps)
            frame = m_cache->getFrame(next);
        lock.unlock();
        if (!frame) {
            frame = m_input->readFrame();
            if (frame) {
                frame->setSerialized(true);
                frame->setJumpFrame(jumps);
            }
        }
        m_input->advanceToNextFrame();
    }
    lock.lock();
    const double end = m_activeTimeRangeEnd;
    const bool isBeyond = !frame || (end >= 0 && end <= frame->getTimeStamp());
    if (isBeyond) {
        endRound(next);
        return;
    }
    // A frame of the cache that was not popped since the last round. A caller who reads has an empty queue.
    m_queueMutex.wait(m_slotAvailable, [&] {
        return _isInterrupted() || m_jumpPending || !m_queuedFrames.contains(frame.get());
    });
    if (!_isInterrupted() && !m_jumpPending)
        _pushFrame(frame.get());
}

/// The reader has come to its end, or to that of the range of times.
void Track::endRound(zel::uint64 frameIndex) {
    if (m_jumpPending)
        return;
    if (m_loopingEnabled && frameIndex != 0 && std::exchange(m_roundHasFrames, false)) {
        const std::lock_guard inputLock(m_inputMutex);
        const double begin = m_activeTimeRangeStart;
        if (begin < 0 || !m_input->jumpToTime(begin))
            (void)m_input->jumpToFrame(0);
        m_jumpPending = true;
        return;
    }
    m_inputActive = false;
    _signalEOF();
}

// Writing

void Track::writeFrames() {
    QueueLock lock(m_queueMutex);
    for (;;) {
        if (!m_queue.empty()) {
            const zel::ref_ptr<Frame> frame = _popFrame();
            m_writing = true;
            lock.unlock();
            {
                const std::lock_guard ioLock(m_ioMutex);
                m_output->writeFrame(frame.get());
            }
            lock.lock();
            m_writing = false;
            m_slotAvailable.notify_all();
            continue;
        }
        if (m_eof)
            endOutput(lock);
        if (m_stopping && m_queue.empty())
            return;
        m_queueMutex.wait(m_frameAvailable,
                          [this] { return m_stopping || !m_queue.empty() || (m_eof && !m_endSignalled); });
    }
}

void Track::endOutput(QueueLock& lock) {
    if (std::exchange(m_endSignalled, true))
        return;
    lock.unlock();
    {
        const std::lock_guard ioLock(m_ioMutex);
        m_output->setEOF(true);
        m_output->endOfStream();
    }
    lock.lock();
}

} // namespace zelData
