#include "FrameNames.h"
#include "FrameOverlay.h"

#include <zel/InvalidIndex.h>
#include <zel/Verify.h>
#include <zelData/Buffer.h>
#include <zelData/DiskFrameReader.h>
#include <zelData/FrameNodes.h>
#include <zelData/Track.h>
#include <zelData/Value.h>

#include <algorithm>
#include <cmath>
#include <mutex>

namespace zelData {

namespace {

using zel::uint64;

constexpr uint64 None = zel::InvalidIndex;

/// Always wanted, whatever is bound.
const char* const ObserverPath = "DynamicsSystem.ObserverFrame";

} // namespace

DiskFrameReader::~DiskFrameReader() = default;

DiskFrameWriter::~DiskFrameWriter() = default;

uint64 DiskFrameReader::getNextFrameIndex() {
    const std::lock_guard lock(m_mutex);
    return m_nextFrameIndex;
}

void DiskFrameReader::advanceToNextFrame() {
    const std::lock_guard lock(m_mutex);
    const uint64 stride = getTrack() == nullptr ? 1 : getTrack()->getFrameStride();
    m_nextFrameIndex = getSession()->getNextFrameIndex(m_nextFrameIndex, static_cast<zel::int64>(stride));
}

double DiskFrameReader::getTimeStep() {
    return getSession()->getTimeStep();
}

uint64 DiskFrameReader::getFrameStride() {
    return getSession()->getFrameStride();
}

void DiskFrameReader::jumpTo(uint64 index) {
    m_nextFrameIndex = index;
    m_jumped = true;
}

uint64 DiskFrameReader::getSequenceStartFrame(uint64 stop) const {
    const JournalArchive::Session* session = getSession();
    for (uint64 index = m_nextFrameIndex; index != None; index = session->getNextFrameIndex(index, -1)) {
        if (session->getFrameHeader(index).isKeyFrame)
            return index;
        if (index <= stop)
            return stop;
    }
    return None;
}

uint64 DiskFrameReader::findFrameAtTime(double time) const {
    zelVerify(time >= 0);
    const JournalArchive::Session* session = getSession();
    const Frame::Header first = session->getFrameHeader(session->getFirstFrameIndex());
    if (first.index == None)
        return None;
    const Frame::Header last = session->getFrameHeader(session->getLastFrameIndex());
    if (last.index != None)
        time = std::min(time, std::max(first.timeStamp, last.timeStamp));
    const auto distance = [&](uint64 index) {
        return std::abs(session->getFrameHeader(index).timeStamp - time);
    };

    // Where the frame would be if all steps were equal.
    const double step = session->getTimeStep() > 0 ? session->getTimeStep() : first.timeStep;
    uint64 index = first.index;
    if (step > 0 && time > first.timeStamp) {
        const double steps = std::round((time - first.timeStamp) / step);
        const auto guess = steps < 1e18 ? first.index + static_cast<uint64>(steps) : None;
        index = std::min(guess, session->getLastFrameIndex());
        if (session->getFrameHeader(index).index == None)
            index = first.index;
    }
    // From there on, as long as it comes nearer, over frames of one stamp too; of two at the same distance,
    // to the earlier.
    for (uint64 next;
         (next = session->getNextFrameIndex(index, 1)) != None && distance(next) <= distance(index);)
        index = next;
    for (uint64 next;
         (next = session->getNextFrameIndex(index, -1)) != None && distance(next) <= distance(index);)
        index = next;
    return index;
}

/// A sequence ends with this, whichever way.
class DiskFrameReader::SequenceScope {
public:
    explicit SequenceScope(DiskFrameReader& reader) : m_reader(reader) {}
    SequenceScope(const SequenceScope&) = delete;
    SequenceScope& operator=(const SequenceScope&) = delete;
    ~SequenceScope() {
        m_reader.m_exclusions.clear();
        m_reader.m_frames.clear();
        m_reader.endSequence();
    }

private:
    DiskFrameReader& m_reader;
};

Frame* DiskFrameReader::readFrame() {
    const std::lock_guard lock(m_mutex);
    JournalArchive::Session* session = getSession();
    if (session->getFrameHeader(m_nextFrameIndex).index == None)
        return nullptr;
    initBindTables();
    const uint64 stride = getTrack() == nullptr ? 1 : getTrack()->getFrameStride();
    // Where no key frame precedes, all begins with the first frame.
    const auto startFrame = [&] {
        const uint64 start = getSequenceStartFrame(0);
        return start == None || session->getFrameHeader(start).index == None ? session->getFirstFrameIndex()
                                                                             : start;
    };
    const auto passedOn = [this](zel::ref_ptr<Frame> frame) {
        m_lastFrame = frame;
        return frame.release_nodelete();
    };
    if (m_jumped) {
        const zel::ref_ptr<Frame> frame = mergeFrameSequence(startFrame());
        m_jumped = false;
        return passedOn(frame);
    }

    const bool skipped =
        m_lastFrame && session->getNextFrameIndex(m_nextFrameIndex, -static_cast<zel::int64>(stride)) !=
                           m_lastFrame->getIndex();
    if (stride != 1 && m_lastFrame) {
        const uint64 passed =
            session->getNextFrameIndex(m_nextFrameIndex, 1 - static_cast<zel::int64>(stride));
        const uint64 start = getSequenceStartFrame(passed == None ? session->getFirstFrameIndex() : passed);
        if (start == None)
            return nullptr;
        if (skipped)
            catchUp(startFrame());
        return passedOn(mergeFrameSequence(start));
    }
    if (!skipped)
        return passedOn(zel::ref_ptr<Frame>(readFrame(m_nextFrameIndex)));
    const SequenceScope scope(*this);
    prepareSequence(startFrame(), m_nextFrameIndex);
    return passedOn(zel::ref_ptr<Frame>(readFrame(m_nextFrameIndex)));
}

/// Takes the names of frames that were passed over.
void DiskFrameReader::catchUp(uint64 start) {
    const SequenceScope scope(*this);
    prepareSequence(start, m_nextFrameIndex);
}

/// Reads the newest frame first, so that of the older ones only what is needed, and applies them in the order
/// of time.
zel::ref_ptr<Frame> DiskFrameReader::mergeFrameSequence(uint64 start) {
    const SequenceScope scope(*this);
    prepareSequence(start, m_nextFrameIndex);
    for (uint64 index = m_nextFrameIndex;; index = getSession()->getNextFrameIndex(index, -1)) {
        const zel::ref_ptr<Frame> frame(readFrame(index));
        if (!frame)
            return {};
        m_frames.push_back(frame);
        if (index == start)
            break;
        updateExclusions(frame.get(), frame.get());
    }
    zel::ref_ptr<Frame> merged = m_frames.back();
    for (zel::size_t i = m_frames.size() - 1; i-- > 0;)
        overlay(merged.get(), m_frames[i].get());
    return merged;
}

void DiskFrameReader::updateExclusions(const Frame* frame, const zel::Component* node) {
    zelVerify(!m_bindingTable.empty());
    for (zel::size_t i = 0; i < node->getNumObjects(); ++i) {
        const zel::Object* child = node->getObject(i);
        if (dynamic_cast<const Frame::PartialBuffer*>(child) != nullptr)
            continue;
        const auto* buffer = dynamic_cast<const Buffer*>(child);
        if (buffer != nullptr &&
            (buffer->getName() == incrementalName() || buffer == frame->getIncrementalFrameArchiveBuffer()))
            continue;
        if (buffer != nullptr || dynamic_cast<const Value*>(child) != nullptr)
            m_exclusions.insert(child->getPath(frame));
        else if (const auto* component = dynamic_cast<const zel::Component*>(child))
            updateExclusions(frame, component);
    }
}

void DiskFrameReader::initBindTables() {
    if (!m_bindingTable.empty())
        return;
    const auto bind = [this](const zel::Path& path, bool recursive) {
        m_bindingTable.insert(path);
        if (recursive)
            m_recursiveTable.insert(path);
        for (zel::Path above = path.base(); !above.empty(); above = above.base())
            m_wayTable.insert(above);
    };
    for (const zel::ref_ptr<Frame::DataBinding>& binding : getDataBindings())
        bind(binding->getInternalPath(), binding->isRecursive());
    bind(ObserverPath, false);
}

bool DiskFrameReader::shouldExtract(const zel::Path& path) {
    if (m_exclusions.contains(path))
        return false;
    if (getDataBindings().empty() || m_bindingTable.contains(path) || m_wayTable.contains(path))
        return true;
    for (zel::Path above = path.base(); !above.empty(); above = above.base())
        if (m_recursiveTable.contains(above))
            return true;
    return false;
}

} // namespace zelData
