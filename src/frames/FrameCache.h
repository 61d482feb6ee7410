#pragma once

#include <zel/HashSet.h>
#include <zel/HashTable.h>
#include <zel/Integers.h>
#include <zel/ref_ptr.h>
#include <zelData/Track.h>

#include <list>

namespace zelData {

/// Keeps frames by their index as long as they fit into a budget; which is told to whoever owns the cache,
/// and those go first that were not asked for the longest.
/// @threads external lock: that of the track's queue
class Track::FrameCache {
public:
    /// @param queued  what stands in the track's own queue; the marks of a frame may come from other tracks
    explicit FrameCache(const zel::HashSet<Frame*>& queued) : m_queued(queued) {}

    /// The frame of the index, or null; the most recent one from now on.
    [[nodiscard]] Frame* getFrame(zel::uint64 index);
    /// Takes the place of one of the same index.
    void addFrame(Frame* frame);
    /// Lets go of one that is there, which is verified.
    void evictFrame(Frame* frame);
    /// Lets go of the oldest frame. One that is still queued is marked, for whoever takes it off the queue.
    /// @return whether one has gone
    bool evictFrame();
    /// Lets go of one that has left the queue, if it was marked, or in any case.
    void release(Frame* frame, bool always);
    void clear();
    void load(const FrameCache& other);

    [[nodiscard]] bool isFull() const noexcept { return maxNumBytes != 0 && m_numBytes > maxNumBytes; }
    [[nodiscard]] bool empty() const noexcept { return m_list.empty(); }
    [[nodiscard]] zel::uint64 getNumBytes() const noexcept { return m_numBytes; }
    [[nodiscard]] zel::uint64 getNumFrames() const noexcept { return m_list.size(); }
    /// Hits divided by requests; 0 without requests.
    [[nodiscard]] double getHitRate() const noexcept;

    zel::uint64 maxNumBytes = 104857600; ///< 0 for no bound

private:
    /// With what the frame was and counted when it entered: others may change it meanwhile.
    struct Entry {
        zel::ref_ptr<Frame> frame;
        zel::uint64 index;
        zel::uint64 numBytes;
        bool isDiscarded = false; // while it is queued
    };
    using List = std::list<Entry>; // in order of use, the oldest first

    void erase(List::iterator position);

    const zel::HashSet<Frame*>& m_queued;
    zel::uint64 m_numBytes = 0;
    List m_list;
    zel::HashTable<zel::uint64, List::iterator> m_table;
    zel::uint64 m_numRequests = 0;
    zel::uint64 m_numHits = 0;
};

} // namespace zelData
