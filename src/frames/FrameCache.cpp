#include "FrameCache.h"

#include <zel/Verify.h>

namespace zelData {

Frame* Track::FrameCache::getFrame(zel::uint64 index) {
    ++m_numRequests;
    const auto entry = m_table.find(index);
    if (entry == m_table.end())
        return nullptr;
    ++m_numHits;
    m_list.splice(m_list.end(), m_list, entry->value);
    return entry->value->frame.get();
}

void Track::FrameCache::addFrame(Frame* frame) {
    const zel::ref_ptr<Frame> keep(frame);
    const auto entry = m_table.find(frame->getIndex());
    if (entry != m_table.end())
        erase(entry->value);
    frame->setDiscardedFromCache(false);
    m_list.push_back({keep, frame->getIndex(), frame->getNumBytes(), false});
    m_table.insert(frame->getIndex(), std::prev(m_list.end()));
    m_numBytes += frame->getNumBytes();
}

void Track::FrameCache::erase(List::iterator position) {
    m_numBytes -= position->numBytes;
    m_table.erase(position->index);
    m_list.erase(position);
}

void Track::FrameCache::evictFrame(Frame* frame) {
    const auto it = m_table.find(frame->getIndex());
    zelVerifyAs(it != m_table.end(), "it != m_frameTable.end()");
    zelVerifyAs(it->value->frame == frame, "entry.first == frame");
    frame->setDiscardedFromCache(false);
    erase(it->value);
}

bool Track::FrameCache::evictFrame() {
    if (m_list.empty())
        return false;
    Entry& oldest = m_list.front();
    if (m_queued.contains(oldest.frame.get())) {
        oldest.isDiscarded = true;
        oldest.frame->setDiscardedFromCache(true);
        return false;
    }
    erase(m_list.begin());
    return true;
}

void Track::FrameCache::release(Frame* frame, bool always) {
    const auto entry = m_table.find(frame->getIndex());
    if (entry != m_table.end() && entry->value->frame == frame && (always || entry->value->isDiscarded))
        evictFrame(frame);
}

void Track::FrameCache::clear() {
    for (const Entry& entry : m_list)
        entry.frame->setDiscardedFromCache(false);
    m_list.clear();
    m_table.clear();
    m_numBytes = 0;
    m_numRequests = 0;
    m_numHits = 0;
}

void Track::FrameCache::load(const FrameCache& other) {
    if (&other == this)
        return;
    clear();
    for (const Entry& entry : other.m_list)
        addFrame(entry.frame.get());
}

double Track::FrameCache::getHitRate() const noexcept {
    return m_numRequests == 0 ? 0 : static_cast<double>(m_numHits) / static_cast<double>(m_numRequests);
}

} // namespace zelData
