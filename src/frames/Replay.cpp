#include "Recordable.h"
#include "RunState.h"

#include <zel/Exception.h>
#include <zelData/Replay.h>
#include <zelIO/FileSystem.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <stdexcept>
#include <thread>
#include <utility>

namespace zelData {

using zel::InvalidIndex;
using zel::uint64;

namespace {

/// How long play sleeps at the most: it asks whether to go on, and looks for new frames.
constexpr double LongestSleep = 0.02;

zel::ref_ptr<FileJournal> openToReplay(const zel::String& path) {
    if (!zelIO::FileSystem::exists(path)) // it would be made
        ZEL_THROW(std::runtime_error, "There is no journal '" + path + "'.");
    zel::ref_ptr<FileJournal> journal(new FileJournal(path, FileJournal::Tolerant));
    if (journal->getNumSessions() == 0)
        ZEL_THROW(std::runtime_error, "Journal '" + path + "' contains no session.");
    return journal;
}

} // namespace

Replay::Replay(const zel::String& journal, zel::Component* root, zel::Clock* clock)
    : Object(zel::Name("Replay"), Object::ClassModel())
    , applyEvent("ApplyEvent", this)
    , m_journal(openToReplay(journal))
    , m_session(FileJournal::downcastSession(m_journal->getSessions().front()))
    , m_reader(new FileFrameReader(m_session.get())) {
    if (root == nullptr)
        root = zel::root();
    m_apply = new FrameApply(root);
    m_runState = std::make_unique<RunStateReader>(root, clock);
}

Replay::~Replay() = default;

uint64 Replay::neighbour(zel::int64 step) const {
    const auto& table = m_session->getFrameTable();
    if (table.empty())
        return InvalidIndex;
    if (m_frame == InvalidIndex)
        return step > 0 ? table.front().index : table.back().index;
    return m_session->getNextFrameIndex(m_frame, step);
}

double Replay::stampOf(uint64 index) const {
    return m_session->getFrameHeader(index).timeStamp;
}

/// @param index  of a frame that there is
void Replay::show(uint64 index) {
    const zel::ref_ptr<Replay> keep(referenceCount() > 0 ? this : nullptr); // callbacks may let go of it
    const bool follows = m_isInOrder && index == neighbour(1);
    m_isInOrder = false; // until all of it is applied
    if (follows)
        m_reader->advanceToNextFrame();
    else
        (void)m_reader->jumpToFrame(index);
    const zel::ref_ptr<Frame> frame(static_cast<DiskFrameReader&>(*m_reader).readFrame());
    if (!frame)
        ZEL_THROW(std::runtime_error,
                  "Frame " + std::to_string(index) + " of journal '" + m_session->getPath() +
                      "' can not be read.");
    m_apply->writeFrame(frame.get());
    if (m_restoresClocks)
        m_runState->apply(frame.get(), [this](const zel::Path& path, const zel::String& reason) {
            noteOmission(m_omissions, path, "replayed", reason);
        });
    m_frame = index;
    m_time = frame->getTimeStamp();
    m_isInOrder = true;
    applyEvent.fire(this);
}

// Jumps and steps

bool Replay::applyFrame(uint64 index) {
    if (m_session->getFrameInfo(index) == nullptr && refresh() == 0)
        return false;
    if (m_session->getFrameInfo(index) == nullptr)
        return false;
    m_isInOrder = false;
    show(index);
    return true;
}

bool Replay::jumpToFrame(uint64 index) {
    const auto& table = m_session->getFrameTable();
    const auto* const behind =
        std::upper_bound(table.begin(), table.end(), index, [](uint64 wanted, const auto& info) {
            return wanted < info.index;
        });
    if (behind == table.begin())
        return false;
    m_isInOrder = false;
    show((behind - 1)->index);
    return true;
}

bool Replay::jumpToTime(double time) {
    if (m_session->getFrameTable().empty())
        return false;
    const uint64 index = m_reader->findFrameAtTime(std::max(0.0, time)); // 0 for no number
    if (index == InvalidIndex)
        return false;
    m_isInOrder = false;
    show(index);
    return true;
}

bool Replay::step(zel::int64 step) {
    uint64 index = neighbour(step);
    if (index == InvalidIndex && step > 0 && refresh() != 0)
        index = neighbour(step);
    if (index == InvalidIndex)
        return false;
    show(index);
    return true;
}

bool Replay::next() {
    return step(1);
}

bool Replay::previous() {
    return step(-1);
}

uint64 Replay::refresh() {
    return m_session->refresh();
}

// Playing

bool Replay::update(double seconds) {
    const zel::ref_ptr<Replay> keep(referenceCount() > 0 ? this : nullptr);
    const zel::int64 direction = m_rate < 0 ? -1 : 1;
    const bool isWaiting = m_follow && direction > 0 && !isClosed();
    if (std::isinf(m_rate) || m_frame == InvalidIndex)
        return step(direction) || isWaiting;
    m_time += m_rate * seconds;
    // The last frame whose time has come.
    const auto isDue = [&](uint64 index) {
        const double stamp = stampOf(index);
        return direction > 0 ? stamp <= m_time : stamp >= m_time;
    };
    uint64 target = m_frame;
    uint64 ahead = neighbour(direction);
    if (ahead == InvalidIndex && direction > 0 && refresh() != 0)
        ahead = neighbour(direction);
    while (ahead != InvalidIndex && isDue(ahead)) {
        target = ahead;
        ahead = m_session->getNextFrameIndex(target, direction);
    }
    const double time = m_time;
    if (target != m_frame)
        show(target);
    if (ahead != InvalidIndex) {
        m_time = time;
        return true;
    }
    m_time = stampOf(m_frame);
    return isWaiting;
}

void Replay::play(const std::function<bool()>& goesOn) {
    const zel::ref_ptr<Replay> keep(referenceCount() > 0 ? this : nullptr);
    using Clock = std::chrono::steady_clock;
    const auto secondsBetween = [](Clock::time_point from, Clock::time_point to) {
        return std::chrono::duration<double>(to - from).count();
    };
    Clock::time_point last = Clock::now();
    while (!goesOn || goesOn()) {
        const Clock::time_point now = Clock::now();
        const uint64 frame = m_frame;
        if (!update(secondsBetween(std::exchange(last, now), now)))
            return;
        if (std::isinf(m_rate) && m_frame != frame)
            continue;
        double pause = LongestSleep;
        const uint64 ahead = neighbour(m_rate < 0 ? -1 : 1);
        if (ahead != InvalidIndex && m_rate != 0)
            pause = std::clamp((stampOf(ahead) - m_time) / m_rate, 0.0, LongestSleep);
        std::this_thread::sleep_for(std::chrono::duration<double>(pause));
    }
}

zel::Vector<zel::String> Replay::getOmissions() const {
    zel::Vector<zel::String> all(m_apply->getOmissions());
    for (const zel::String& text : m_omissions)
        all.push_back(text);
    return all;
}

} // namespace zelData
