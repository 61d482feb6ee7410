#include "InspectionTracks.h"

#include "InspectionElements.h"
#include "InspectionTree.h"

#include <zel/TreeGate.h>
#include <zelIO/FileSystem.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <stdexcept>
#include <utility>

namespace zelNet {

using zel::int64;
using zel::size_t;
using zel::uint64;
using Track = InspectionTrack;

namespace {

constexpr std::chrono::milliseconds StateInterval(50);

const zelData::SerializedFrame::BinaryHeader::Frame& presentRecord(const Track& track) {
    return track.tree->getRecord(track.tree->getPlace());
}

Json::Value positionToJson(uint64 frame, double time) {
    Json::Value position;
    position["frame"] = wholeToJson(frame);
    position["time"] = realToJson(time);
    return position;
}

Json::Value boundToJson(double time) {
    return std::isfinite(time) ? realToJson(time) : Json::Value();
}

/// The places of the first and the last frame of the range; the first is above the last for none.
std::pair<size_t, size_t> placesOf(const Track& track, const TimeRange& range) {
    size_t first = 0;
    size_t behind = track.tree->getNumFrames();
    while (first < behind && track.tree->getRecord(first).timeStamp < range.start)
        ++first;
    while (first < behind && track.tree->getRecord(behind - 1).timeStamp > range.end)
        --behind;
    return first < behind ? std::make_pair(first, behind - 1) : std::make_pair(size_t{1}, size_t{0});
}

} // namespace

InspectionTracks::~InspectionTracks() {
    const zel::TreeChange change;
    for (const auto& track : m_tracks)
        if (track->tree && track->tree->getContext() == m_root)
            m_root->removeObject(track->tree.get());
}

uint64 InspectionTracks::addJournal(const zel::String& file, const zel::Name& name) {
    auto track = std::make_unique<Track>();
    track->name = name;
    track->id = m_tracks.size();
    track->file = file;
    track->tree = new JournalTree(name);
    const zel::TreeChange change;
    m_root->addObject(track->tree.get());
    m_tracks.push_back(std::move(track));
    return m_tracks.back()->id;
}

uint64 InspectionTracks::addLive(const zel::Name& name, zel::Clock* clock, zel::Component* component) {
    auto track = std::make_unique<Track>();
    track->name = name;
    track->id = m_tracks.size();
    track->clock = clock;
    track->component = component;
    m_tracks.push_back(std::move(track));
    return m_tracks.back()->id;
}

TimeRange::TimeRange(const InspectionRequest& request) {
    if (!request.member("start").isNull())
        start = request.number("start");
    if (!request.member("end").isNull())
        end = request.number("end");
    if (start > end)
        throw std::runtime_error("'start' must not be above 'end'");
}

// What clients see

Json::Value InspectionTracks::describe(const Track& track) const {
    Json::Value entry;
    const zel::Component* component = track.isLive() ? track.component.get() : track.tree.get();
    entry["id"] = static_cast<Json::UInt64>(track.id);
    entry["name"] = track.name.c_str();
    entry["live"] = track.isLive();
    entry["open"] = track.isLive() ? component != nullptr : track.tree->isOpen();
    entry["path"] =
        component == nullptr ? "" : static_cast<const std::string&>(inspectedPath(m_root, component));
    entry["session"] = "";
    entry["file"] = "";
    entry["closed"] = false;
    entry["numFrames"] = 0;
    for (const char* member : {"firstFrame", "lastFrame", "startTime", "endTime", "timeStep", "position"})
        entry[member] = Json::Value();
    entry["playing"] = track.isPlaying;
    entry["rate"] = track.rate;
    entry["stride"] = static_cast<Json::UInt64>(track.stride);
    entry["loop"] = track.isLooping;
    entry["range"]["start"] = boundToJson(track.range.start);
    entry["range"]["end"] = boundToJson(track.range.end);
    entry["error"] = static_cast<const std::string&>(track.error);
    if (track.isLive()) {
        const zel::Clock* clock = track.clock.get();
        if (clock == nullptr)
            return entry;
        entry["playing"] = clock->isEnabled();
        entry["firstFrame"] = entry["lastFrame"] = wholeToJson(clock->getFrame());
        entry["startTime"] = entry["endTime"] = realToJson(clock->getTime());
        entry["timeStep"] = realToJson(clock->getTimeStep());
        entry["position"] = positionToJson(clock->getFrame(), clock->getTime());
        entry["position"]["index"] = Json::Value();
        return entry;
    }
    entry["file"] = zelIO::FileSystem::getFileWithExtension(track.file).c_str();
    if (!track.tree->isOpen())
        return entry;
    const zelData::PlainJournal& journal = *track.tree->getJournal();
    if (journal.getSession() != nullptr)
        entry["session"] = journal.getSession()->getName().c_str();
    entry["closed"] = journal.isClosed();
    if (track.error.empty() && !journal.getFaults().empty())
        entry["error"] = "The journal is damaged at offset " +
                         std::to_string(journal.getFaults().front().offset) + ": " +
                         journal.getFaults().front().text;
    const size_t numFrames = track.tree->getNumFrames();
    entry["numFrames"] = static_cast<Json::UInt64>(numFrames);
    if (numFrames == 0)
        return entry;
    entry["firstFrame"] = wholeToJson(track.tree->getRecord(0).index);
    entry["lastFrame"] = wholeToJson(track.tree->getRecord(numFrames - 1).index);
    entry["startTime"] = realToJson(track.tree->getRecord(0).timeStamp);
    entry["endTime"] = realToJson(track.tree->getRecord(numFrames - 1).timeStamp);
    const auto& record = presentRecord(track);
    entry["timeStep"] = realToJson(record.timeStep);
    entry["position"] = positionToJson(record.index, record.timeStamp);
    entry["position"]["index"] = static_cast<Json::UInt64>(track.tree->getPlace());
    return entry;
}

void InspectionTracks::list(InspectionRequest& request) {
    const bool isFirst = m_listeners.empty();
    m_listeners.insert(request.socket);
    Json::Value& entries = request.response["tracks"] = Json::Value(Json::arrayValue);
    for (const auto& track : m_tracks) {
        entries.append(describe(*track));
        if (isFirst)
            track->told = jsonOf(entries[entries.size() - 1]);
    }
}

bool InspectionTracks::tell(Track& track, Time now) {
    if (m_listeners.empty() || (!track.isChanged && now < track.nextTold))
        return false;
    track.isChanged = false;
    track.nextTold = now + StateInterval;
    std::string entry = jsonOf(describe(track));
    if (entry == track.told)
        return false;
    track.told = std::move(entry);
    const std::string header = "{\"track\":" + track.told + "}";
    for (WebSocket* socket : m_listeners)
        if (socket->isOpen() && !socket->isAnonymous())
            pushText(socket, "Track.State", ++m_lastMessage, header, nullptr);
    return true;
}

std::string InspectionTracks::firstPosition() const {
    for (const auto& track : m_tracks) {
        if (!track->hasFrames())
            continue;
        Json::Value position = positionToJson(presentRecord(*track).index, presentRecord(*track).timeStamp);
        position["track"] = static_cast<Json::UInt64>(track->id);
        position["path"] = "";
        return jsonOf(position);
    }
    return "null";
}

const JournalTree* InspectionTracks::treeOf(const zel::Object* object) {
    for (; object != nullptr; object = object->getContext())
        if (const auto* tree = dynamic_cast<const JournalTree*>(object))
            return tree;
    return nullptr;
}

Track& InspectionTracks::find(uint64 id) {
    if (id >= m_tracks.size())
        throw std::runtime_error("There is no track " + std::to_string(id));
    return *m_tracks[id];
}

Track& InspectionTracks::require(const InspectionRequest& request) {
    return find(request.wholeNumber("id", ~uint64{0}));
}

Track& InspectionTracks::requireJournal(const InspectionRequest& request, const char* refusal) {
    Track& track = require(request);
    if (track.isLive())
        throw std::runtime_error("The track '" + track.name.str() + "' is live: " + refusal);
    if (!track.tree->isOpen())
        open(track);
    return track;
}

// What clients do

void InspectionTracks::open(Track& track) {
    track.isChanged = true;
    try {
        track.tree->open(track.file);
        track.error.clear();
    } catch (const std::exception& error) {
        track.isPlaying = false;
        track.error = error.what();
        throw;
    }
}

void InspectionTracks::open(uint64 id) {
    Track& track = find(id);
    if (track.isLive())
        throw std::runtime_error("The track '" + track.name.str() + "' is live: there is nothing to open");
    open(track);
}

void InspectionTracks::show(Track& track, size_t place, bool pauses) {
    track.isChanged = track.isChanged || pauses;
    try {
        if (pauses)
            track.isPlaying = false;
        if (place != track.tree->getPlace() || !track.error.empty())
            track.tree->show(place);
        track.error.clear();
    } catch (const std::exception& error) {
        track.isChanged = true;
        track.isPlaying = false;
        track.error = error.what();
        throw;
    }
}

void InspectionTracks::control(InspectionRequest& request) {
    Track& track = require(request);
    if (track.isLive())
        throw std::runtime_error("The track '" + track.name.str() +
                                 "' is live: its clock is driven by Clock.Control");
    const zel::String action = request.text("action");
    // What a request has wrong is told ahead of all changes.
    const auto opened = [&track] {
        if (!track.tree->isOpen())
            open(track);
    };
    const auto withFrames = [&track, &opened] {
        opened();
        if (!track.hasFrames())
            throw std::runtime_error("The track '" + track.name.str() + "' has no frames");
    };
    track.isChanged = true;
    if (action == "open") {
        open(track);
    } else if (action == "close") {
        track.isPlaying = false;
        track.error.clear();
        track.tree->close();
    } else if (action == "play") {
        const double rate = request.member("rate").isNull() ? track.rate : request.number("rate");
        if (rate == 0)
            throw std::runtime_error("'rate' must not be 0");
        withFrames();
        play(track, rate);
    } else if (action == "pause") {
        opened();
        track.isPlaying = false;
    } else if (action == "seek") {
        const uint64 frame = request.wholeNumber("frame", ~uint64{0});
        withFrames();
        show(track, placeOfFrame(*track.tree->getJournal(), frame), true);
    } else if (action == "seekTime") {
        const double time = request.number("time");
        TimeRange range;
        range.end = time;
        withFrames();
        show(track, placesOf(track, range).second, true);
    } else if (action == "step") {
        const int64 count = request.signedNumber("count", 1);
        withFrames();
        step(track, count);
    } else if (action == "stride") {
        const uint64 stride = request.wholeNumber("stride", ~zel::uint32{0});
        if (stride == 0)
            throw std::runtime_error("'stride' must be at least 1");
        opened();
        track.stride = stride;
    } else if (action == "loop") {
        const bool isLooping = request.flag("loop");
        opened();
        track.isLooping = isLooping;
    } else if (action == "range") {
        const TimeRange range(request);
        opened();
        track.range = range;
    } else
        throw std::runtime_error(
            "'action' must be one of open, close, play, pause, seek, seekTime, step, stride, loop and range");
    request.response["track"] = describe(track);
}

void InspectionTracks::step(Track& track, int64 count) {
    const uint64 place = track.tree->getPlace();
    const uint64 available = count < 0 ? place : track.tree->getNumFrames() - 1 - place;
    const uint64 wanted = count < 0 ? uint64{0} - static_cast<uint64>(count) : static_cast<uint64>(count);
    const uint64 distance = std::min(wanted, available / track.stride) * track.stride;
    show(track, count < 0 ? place - distance : place + distance, true);
}

// Playing

void InspectionTracks::play(Track& track, double rate) {
    const auto [first, last] = placesOf(track, track.range);
    if (first > last)
        throw std::runtime_error("The track '" + track.name.str() + "' has no frames in its range");
    const size_t place = track.tree->getPlace();
    const bool isWithin = place >= first && place <= last;
    const bool goesOn = isWithin && (rate > 0 ? last - place >= track.stride : place - first >= track.stride);
    show(track, goesOn ? place : rate > 0 ? first : last, false);
    track.rate = rate;
    track.isPlaying = true;
    track.due = 0;
    track.played = std::chrono::steady_clock::now();
}

void InspectionTracks::playOn(Track& track, Time now) {
    const bool isForward = track.rate > 0;
    const auto [first, last] = placesOf(track, track.range);
    const double seconds = std::chrono::duration<double>(now - track.played).count();
    track.played = now;
    track.due += std::max(seconds, 0.0) * std::abs(track.rate);
    if (first > last) {
        track.isPlaying = false;
        track.isChanged = true;
        return;
    }
    size_t place = std::clamp(track.tree->getPlace(), first, last);
    for (;;) {
        const bool isAtEnd = isForward ? last - place < track.stride : place - first < track.stride;
        if (isAtEnd && !track.isLooping) {
            track.isPlaying = false;
            track.isChanged = true;
            break;
        }
        if (isAtEnd && place != track.tree->getPlace()) {
            track.due = 0; // the last one is shown ahead of the other end
            break;
        }
        const size_t next = isAtEnd     ? (isForward ? first : last)
                            : isForward ? place + track.stride
                                        : place - track.stride;
        const auto& record = track.tree->getRecord(place);
        double gap = track.tree->getRecord(next).timeStamp - record.timeStamp;
        gap = isAtEnd ? record.timeStep : isForward ? gap : -gap;
        if (!std::isfinite(gap) || gap < 0)
            gap = 0; // times that are no numbers, or jump back, hold nobody up
        if (gap > track.due)
            break;
        track.due -= gap;
        place = next;
        if (isAtEnd) {
            track.due = 0;
            break;
        }
    }
    try {
        show(track, place, false);
    } catch (const std::exception&) {
        // told by the track's error
    }
}

bool InspectionTracks::update(Time now) {
    bool hasWorked = false;
    for (size_t i = 0; i < m_tracks.size(); ++i) { // those who listen to what is shown may add some
        Track& track = *m_tracks[i];
        if (track.isPlaying) {
            const size_t place = track.tree->getPlace();
            playOn(track, now);
            hasWorked = hasWorked || track.tree->getPlace() != place;
        }
        hasWorked = tell(track, now) || hasWorked;
    }
    return hasWorked;
}

} // namespace zelNet
