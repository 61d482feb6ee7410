#include "FrameCache.h"
#include "TrackThread.h"

#include <zel/Model.h>
#include <zel/Verify.h>
#include <zelData/DiskFrameReader.h>
#include <zelData/Track.h>

#include <algorithm>
#include <utility>

// The queue, and those who push and pop. The order of the locks is output, queue, input. The track itself
// takes the first of them alone, so that a writer may stop its track; and it gives the queue back while a
// frame is read.

namespace zelData {

namespace {

const zel::Name& pushFrameEventName() {
    static const zel::Name name("PushFrameEvent");
    return name;
}

const zel::Name& popFrameEventName() {
    static const zel::Name name("PopFrameEvent");
    return name;
}

zel::ref_ptr<Frame> copyOf(const Frame* frame) {
    zel::ref_ptr<Frame> copy(new Frame(frame->getIndex(), frame->getTimeStamp(), frame->getTimeStep()));
    copy->merge(frame, true);
    copy->setId(frame->getId());
    copy->setJumpFrame(frame->isJumpFrame());
    copy->setIncrementalFrameArchiveBuffer(copy->getBuffer("FrameArchive.Incremental"));
    return copy;
}

} // namespace

Track::Track(const zel::Name& name)
    : Object(name, ClassModel())
    , pushFrameEvent(pushFrameEventName(), this)
    , popFrameEvent(popFrameEventName(), this)
    , m_cache(std::make_unique<FrameCache>(m_queuedFrames)) {}

Track::Track(FrameReader* input, FrameWriter* output) : Track() {
    if (input != nullptr)
        setInput(input);
    if (output != nullptr)
        setOutput(output);
}

void Track::setInput(FrameReader* input) {
    zelVerifyNAs(
        !m_input || input == nullptr, "!m_input || !input", "Currently no support for switching input");
    m_input = input;
    if (input != nullptr)
        input->setTrack(this);
}

void Track::setOutput(FrameWriter* output) {
    zelVerifyNAs(!m_output, "!m_output", "Currently no support for switching output");
    m_output = output;
    if (output != nullptr)
        output->setTrack(this);
}

// Pushing

void Track::pushFrame(Frame* frame) {
    zelVerify(frame);
    const zel::ref_ptr<Frame> keep(frame);
    const QueueLock lock(m_queueMutex);
    m_queueMutex.wait(m_slotAvailable, [&] { return _isInterrupted() || !m_queuedFrames.contains(frame); });
    if (_isInterrupted() || m_jumpPending)
        return;
    _pushFrame(frame);
}

void Track::_pushFrame(Frame* frame) {
    frame->setTrack(this);
    frame->setQueued(true);
    _updateDataRate(frame);
    const zel::uint64 numBytes = frame->getNumBytes();
    m_queue.push_back({zel::ref_ptr<Frame>(frame), numBytes});
    m_queuedFrames.insert(frame);
    if (!frame->isJumpFrame() && !m_expandFrames)
        m_cache->addFrame(frame);
    ++m_numQueuedFrames;
    m_numQueuedBytes += numBytes;
    m_totalBytes += numBytes;
    ++m_numFrames;
    m_roundHasFrames = true;
    m_frameAvailable.notify_all();
    pushFrameEvent.fire(frame);
}

void Track::_updateDataRate(const Frame* frame) {
    const auto now = std::chrono::steady_clock::now();
    if (!m_rateRunning) {
        m_rateRunning = true;
        m_rateStart = now;
        m_rateBytes = 0;
    }
    m_rateBytes += frame->getNumBytes();
    const double seconds = std::chrono::duration<double>(now - m_rateStart).count();
    if (seconds < 0.2)
        return;
    m_dataRate = static_cast<double>(m_rateBytes) / seconds / 1024;
    m_rateStart = now;
    m_rateBytes = 0;
}

// Popping

zel::ref_ptr<Frame> Track::popFrame(bool block) {
    QueueLock lock(m_queueMutex);
    for (;;) {
        if (_isInterrupted())
            return {};
        if (!m_queue.empty())
            return _popFrame();
        if (m_input && !m_input->isThreaded() && !m_eof) {
            readTurn(lock);
            continue;
        }
        if (m_eof) {
            if (m_output && !m_output->isThreaded())
                endOutput(lock);
            return {};
        }
        if (!block)
            return {};
        m_queueMutex.wait(m_frameAvailable, [this] { return _isInterrupted() || m_eof || !m_queue.empty(); });
    }
}

/// Takes a frame off one end of the queue.
zel::ref_ptr<Frame> Track::_takeOff(bool newest) {
    Queued entry = std::move(newest ? m_queue.back() : m_queue.front());
    if (newest)
        m_queue.pop_back();
    else
        m_queue.pop_front();
    --m_numQueuedFrames;
    m_numQueuedBytes -= entry.numBytes;
    m_queuedFrames.erase(entry.frame.get());
    entry.frame->setQueued(false);
    // A cache in front of which nobody reads serves nothing but the budget.
    m_cache->release(entry.frame.get(), !m_input);
    m_slotAvailable.notify_all();
    return entry.frame;
}

zel::ref_ptr<Frame> Track::_popFrame() {
    popFrameEvent.fire(m_queue.front().frame.get());
    zel::ref_ptr<Frame> frame = _takeOff(false);
    if (m_expandFrames)
        _expand(frame);
    return frame;
}

/// Replaces what has changed by all that there is.
void Track::_expand(zel::ref_ptr<Frame>& frame) {
    if (frame->isKeyFrame()) {
        m_expandedFrame = frame->referenceCount() > 1 ? copyOf(frame.get()) : frame;
    } else {
        zelVerifyAs(m_expandedFrame != nullptr, "m_expandedFrame");
        m_expandedFrame->clearEvents();
        m_expandedFrame->setIndex(frame->getIndex());
        m_expandedFrame->setTimeStamp(frame->getTimeStamp());
        m_expandedFrame->setTimeStep(frame->getTimeStep());
        m_expandedFrame->setJumpFrame(frame->isJumpFrame());
        m_expandedFrame->merge(frame.get(), true);
    }
    frame = m_expandedFrame;
}

void Track::_dropQueue() {
    while (!m_queue.empty())
        (void)_takeOff(false);
}

void Track::clearQueue() {
    const QueueLock lock(m_queueMutex);
    _dropQueue();
}

// The budget

/// Lets go of cached frames as long as there are too many.
/// @return whether there is room now
bool Track::_makeRoom() {
    while (m_cache->isFull() && m_cache->evictFrame()) {
    }
    // Expanded frames and those of jumps are queued without being cached.
    return !m_cache->isFull() && (m_cache->maxNumBytes == 0 || m_numQueuedBytes <= m_cache->maxNumBytes);
}

bool Track::_waitForFreeSlot() {
    m_queueMutex.wait(m_slotAvailable, [this] { return _isInterrupted() || _makeRoom(); });
    return !_isInterrupted();
}

bool Track::waitForFreeSlot() {
    const QueueLock lock(m_queueMutex);
    return _waitForFreeSlot();
}

zel::uint64 Track::getMaxNumBytes() const {
    const QueueLock lock(m_queueMutex);
    return m_cache->maxNumBytes;
}

void Track::setMaxNumBytes(zel::uint64 n) {
    const QueueLock lock(m_queueMutex);
    m_cache->maxNumBytes = n;
    m_slotAvailable.notify_all();
}

zel::uint64 Track::getNumCachedFrames() const {
    const QueueLock lock(m_queueMutex);
    return m_cache->getNumFrames();
}

zel::uint64 Track::getNumCachedBytes() const {
    const QueueLock lock(m_queueMutex);
    return m_cache->getNumBytes();
}

double Track::getCacheHitRate() const {
    const QueueLock lock(m_queueMutex);
    return m_cache->getHitRate();
}

void Track::loadCache(Track* other) {
    FrameCache frames(other->m_queuedFrames);
    zel::uint64 stride = 0;
    {
        const QueueLock lock(other->m_queueMutex);
        frames.load(*other->m_cache);
        stride = other->m_frameStride;
    }
    const QueueLock lock(m_queueMutex);
    if (stride == m_frameStride) // else they tell what has changed since other frames than this track's
        m_cache->load(frames);
}

// The end

bool Track::isEOF() const {
    const QueueLock lock(m_queueMutex);
    return m_eof;
}

void Track::_notifyAll() {
    m_frameAvailable.notify_all();
    m_slotAvailable.notify_all();
}

void Track::_signalEOF() {
    m_eof = true;
    _notifyAll();
}

void Track::_resetEOF() {
    m_eof = false;
    m_endSignalled = false;
    m_inputActive = true;
    m_roundHasFrames = true;
    if (m_output)
        m_output->setEOF(false);
    _notifyAll();
}

// Where the reader goes

bool Track::_jump(const std::function<bool(FrameReader*)>& jump) {
    if (m_exception != nullptr || !m_input)
        return false;
    _dropQueue();
    bool found = false;
    {
        const std::lock_guard inputLock(m_inputMutex);
        found = jump(m_input.get());
    }
    if (found && m_eof)
        _resetEOF();
    m_jumpPending = true;
    return found;
}

bool Track::jumpToFrame(zel::uint64 index) {
    const QueueLock lock(m_queueMutex);
    return _jump([index](FrameReader* input) { return input->jumpToFrame(index); });
}

bool Track::jumpToTime(double time) {
    const QueueLock lock(m_queueMutex);
    return _jump([time](FrameReader* input) {
        if (time >= 0)
            return input->jumpToTime(time);
        const auto* disk = dynamic_cast<const DiskFrameReader*>(input);
        return input->jumpToFrame(disk == nullptr ? 0 : disk->getSession()->getFirstFrameIndex());
    });
}

void Track::setFrameStride(zel::uint64 stride) {
    const QueueLock lock(m_queueMutex);
    _setFrameStride(stride);
}

void Track::_setFrameStride(zel::uint64 stride) {
    zelVerify(stride > 0);
    if (const auto* writer = dynamic_cast<const DiskFrameWriter*>(m_output.get())) {
        const JournalArchive::Session* session = writer->getSession();
        if (session->getNumFrames() != 0 && session->getFrameStride() != stride)
            zelAbort("Existing journal has frame stride %u, not allowed to set new frame stride %u",
                     static_cast<unsigned>(session->getFrameStride()),
                     static_cast<unsigned>(stride));
    }
    // A reader that has not begun begins where it stands.
    auto* reader = dynamic_cast<DiskFrameReader*>(m_input.get());
    if (reader != nullptr && m_running) {
        const JournalArchive::Session* session = reader->getSession();
        zel::uint64 next = zel::InvalidIndex; // the first that was not popped
        if (!m_queue.empty())
            next = m_queue.front().frame->getIndex();
        else if (m_underWay.load() != zel::InvalidIndex && !m_jumpPending)
            next = m_underWay; // the reader may be behind it already
        else
            next = reader->getNextFrameIndex();
        if (next != zel::InvalidIndex) {
            next = session->getNextFrameIndex(next, -static_cast<zel::int64>(m_frameStride.load()));
            if (next == zel::InvalidIndex)
                next = session->getFirstFrameIndex();
            next = session->getNextFrameIndex(next, static_cast<zel::int64>(stride));
        }
        (void)_jump([next](FrameReader* input) { return input->jumpToFrame(next); });
    }
    if (m_eof)
        _resetEOF();
    m_frameStride = stride;
    m_cache->clear();
}

double Track::setFrameFrequency(double frequency) {
    const QueueLock lock(m_queueMutex);
    zelVerifyNAs(m_input, "m_input", "Input must be activated before frame frequency can be defined");
    if (!(frequency > 0))
        return -1;
    double step = 0;
    zel::uint64 sessionStride = 1;
    {
        const std::lock_guard inputLock(m_inputMutex);
        step = m_input->getTimeStep();
        sessionStride = m_input->getFrameStride();
    }
    if (!(step > 0)) {
        _setFrameStride(1);
        return -1;
    }
    const double native = 1 / (step * static_cast<double>(sessionStride));
    const double wanted = native / frequency + 0.05;
    const zel::uint64 stride = wanted < 1      ? 1
                               : wanted < 1e15 ? static_cast<zel::uint64>(wanted)
                                               : 1000000000000000;
    _setFrameStride(stride);
    return native / static_cast<double>(stride);
}

void Track::setEnableLooping(bool enable) {
    const QueueLock lock(m_queueMutex);
    m_loopingEnabled = enable;
    if (!m_input) {
        _notifyAll();
        return;
    }
    const auto jumpReader = [this](zel::uint64 index) {
        const std::lock_guard inputLock(m_inputMutex);
        (void)m_input->jumpToFrame(index);
        m_jumpPending = true;
    };
    if (enable) {
        jumpReader(0);
        _resetEOF();
        return;
    }
    if (m_queue.empty() || m_queue.back().frame->getIndex() >= m_queue.front().frame->getIndex())
        return;
    jumpReader(zel::InvalidIndex);
    while (m_queue.back().frame->getIndex() < m_queue.front().frame->getIndex())
        (void)_takeOff(true);
}

zel::Model* Track::ClassModel() {
    static std::atomic<zel::Model*> s_model{nullptr};
    return zel::Model::createBuiltinModel("Track", Object::ClassModel(), s_model);
}

} // namespace zelData
