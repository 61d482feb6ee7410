#pragma once

#include "InspectionRequest.h"
#include "InspectionTracks.h"
#include "JournalSeries.h"

#include <zel/Integers.h>

#include <chrono>
#include <map>
#include <vector>

namespace zelNet {

/// The series that clients of an inspection service have asked for, and that are still being read.
/// @threads as the service
class InspectionSeries {
public:
    using Time = std::chrono::steady_clock::time_point;
    // Of each client
    static constexpr zel::size_t MaxSeries = 16;
    static constexpr zel::size_t MaxItems = 64;

    /// Both outlive the series.
    InspectionSeries(zel::Component* root, InspectionTracks& tracks) : m_root(root), m_tracks(tracks) {}

    void start(InspectionRequest& request);
    void stop(InspectionRequest& request);
    /// Ends all that the client has asked for.
    void forget(WebSocket* socket) { m_clients.erase(socket); }
    /// Reads on until the time, and sends what was read. Who takes nothing is not read for.
    /// @return whether there was anything to do
    bool update(Time end);

private:
    struct Series {
        JournalSeries rows;
        zel::uint64 numSent = 0; // rows
        bool areErrorsTold = false;
    };
    using OfClient = std::map<zel::uint64, Series>;

    [[nodiscard]] std::vector<SeriesItem> itemsOf(const InspectionRequest& request) const;
    void readUntil(Time end);
    /// @return whether there was anything to send
    bool send(WebSocket* socket, zel::uint64 number, Series& series);
    void
    sendPiece(WebSocket* socket, zel::uint64 number, Series& series, bool isDone, const std::string& failure);

    zel::Component* m_root;
    InspectionTracks& m_tracks;
    std::map<WebSocket*, OfClient> m_clients;
    zel::size_t m_turn = 0;        // whose turn it is to be read first
    zel::uint32 m_lastMessage = 0; // the number of the last piece
};

} // namespace zelNet
