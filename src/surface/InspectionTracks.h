#pragma once

#include "InspectionRequest.h"
#include "JournalTree.h"

#include <zel/Clock.h>
#include <zel/Component.h>
#include <zel/Integers.h>
#include <zel/Name.h>
#include <zel/String.h>
#include <zel/observer_ptr.h>
#include <zel/ref_ptr.h>

#include <chrono>
#include <limits>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace zelNet {

/// Times of frames; all of them unless bounds are told.
struct TimeRange {
    double start = -std::numeric_limits<double>::infinity();
    double end = std::numeric_limits<double>::infinity();

    TimeRange() = default;
    /// Of the members `start` and `end`, which may lack.
    /// @throws std::runtime_error
    explicit TimeRange(const InspectionRequest& request);
};

/// Something that has frames over time: the run, or a journal.
struct InspectionTrack {
    using Time = std::chrono::steady_clock::time_point;

    zel::Name name;
    zel::uint64 id = 0;

    // Of the run; either may be gone
    zel::observer_ptr<zel::Clock> clock;
    zel::observer_ptr<zel::Component> component;

    // Of a journal
    zel::String file;
    zel::ref_ptr<JournalTree> tree; ///< null for the run
    bool isPlaying = false;
    bool isLooping = false;
    double rate = 1;
    zel::uint64 stride = 1;
    TimeRange range; ///< in which it plays
    zel::String error;
    double due = 0; ///< of the recorded time, what was not played yet
    Time played;    ///< up to here

    // What clients were told last
    bool isChanged = false;
    std::string told;
    Time nextTold;

    [[nodiscard]] bool isLive() const { return tree.get() == nullptr; }
    [[nodiscard]] bool hasFrames() const { return tree && tree->getNumFrames() != 0; }
};

/// The tracks of an inspection service: what clients see of them, and the playing of journals, whose frames
/// are shown by components below the root.
/// @threads as the service
class InspectionTracks {
public:
    using Time = InspectionTrack::Time;

    /// @param root  outlives the tracks
    explicit InspectionTracks(zel::Component* root) : m_root(root) {}
    InspectionTracks(const InspectionTracks&) = delete;
    InspectionTracks& operator=(const InspectionTracks&) = delete;
    ~InspectionTracks();

    /// @return the track's id
    zel::uint64 addJournal(const zel::String& file, const zel::Name& name);
    zel::uint64 addLive(const zel::Name& name, zel::Clock* clock, zel::Component* component);
    /// Opens the journal, or takes in what was written to it meanwhile.
    /// @throws std::runtime_error  also for a track that is no journal
    void open(zel::uint64 id);

    void list(InspectionRequest& request);
    void control(InspectionRequest& request);
    /// Forgets the client.
    void forget(WebSocket* socket) { m_listeners.erase(socket); }
    /// Plays, and tells clients what has changed.
    /// @return whether there was anything to do
    bool update(Time now);

    /// The track that the request's `id` names.
    /// @throws std::runtime_error
    [[nodiscard]] InspectionTrack& require(const InspectionRequest& request);
    /// The same of a journal, opened.
    /// @param refusal  what is said of the run, behind its name
    [[nodiscard]] InspectionTrack& requireJournal(const InspectionRequest& request, const char* refusal);
    /// The position of the first open journal as updates have it, in JSON; "null" for none.
    [[nodiscard]] std::string firstPosition() const;
    /// The tree of the journal that the object is a part of; null for none.
    [[nodiscard]] static const JournalTree* treeOf(const zel::Object* object);

private:
    [[nodiscard]] Json::Value describe(const InspectionTrack& track) const;
    [[nodiscard]] InspectionTrack& find(zel::uint64 id);
    static void open(InspectionTrack& track);
    /// Shows the frame and pauses the track if that fails, or in any case.
    static void show(InspectionTrack& track, zel::size_t place, bool pauses);
    static void play(InspectionTrack& track, double rate);
    static void step(InspectionTrack& track, zel::int64 count);
    /// Shows the frame that is due.
    static void playOn(InspectionTrack& track, Time now);
    bool tell(InspectionTrack& track, Time now);

    zel::Component* m_root;
    std::vector<std::unique_ptr<InspectionTrack>> m_tracks; // by their ids
    std::set<WebSocket*> m_listeners;
    zel::uint32 m_lastMessage = 0; // the number of the last state that was pushed
};

} // namespace zelNet
