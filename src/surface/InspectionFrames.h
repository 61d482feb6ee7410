#pragma once

#include "InspectionRequest.h"
#include "InspectionTracks.h"

#include <zel/Component.h>
#include <zel/Integers.h>
#include <zel/observer_ptr.h>
#include <zel/ref_ptr.h>
#include <zelData/FrameCapture.h>

#include <deque>
#include <map>
#include <utility>

namespace zelNet {

/// The tracks whose frames clients of an inspection service follow.
/// @threads as the service
class InspectionFrames {
public:
    static constexpr zel::size_t MaxSubscriptions = 16; // of each client

    /// @param tracks  outlive this
    explicit InspectionFrames(InspectionTracks& tracks) : m_tracks(tracks) {}

    void subscribe(InspectionRequest& request);
    void unsubscribe(InspectionRequest& request);
    void acknowledge(const InspectionRequest& request);
    /// Ends all that the client follows.
    void forget(WebSocket* socket) { m_clients.erase(socket); }
    /// Sends the frames of tracks that have another one than before.
    /// @return whether anything was sent
    bool update();

private:
    struct Subscription {
        const InspectionTrack* track = nullptr;
        zel::observer_ptr<zel::Component> component; // what the capture looks at
        zel::ref_ptr<zelData::FrameCapture> capture;
        bool hasSent = false;
        std::pair<zel::uint64, double> shown;   // what the last one showed: a revision, or frame and time
        std::deque<zel::uint64> unacknowledged; // indices
    };

    /// @return false if the subscription ends
    static bool send(WebSocket* socket, Subscription& subscription, bool& hasSent);

    InspectionTracks& m_tracks;
    std::map<WebSocket*, std::map<zel::uint64, Subscription>> m_clients; // by track
};

} // namespace zelNet
