#include "InspectionFrames.h"

#include "StreamText.h"

#include <zel/Log.h>
#include <zelData/Frame.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <stdexcept>
#include <string>

namespace zelNet {

using zel::uint64;

namespace {

constexpr zel::size_t MaxUnacknowledged = 2;
constexpr zel::size_t MaxPaths = 64;

} // namespace

void InspectionFrames::subscribe(InspectionRequest& request) {
    const InspectionTrack& track = m_tracks.require(request);
    zel::Vector<zel::Path> paths;
    if (!request.member("paths").isNull())
        for (const zel::String& path : request.texts("paths", MaxPaths)) {
            if (path.empty())
                throw std::runtime_error("'paths' must not be empty");
            paths.push_back(zel::verifiedPath(path));
        }
    auto& ofClient = m_clients[request.socket];
    if (!ofClient.contains(track.id) && ofClient.size() == MaxSubscriptions)
        throw std::runtime_error("There may be 16 subscriptions");
    zel::Component* component = track.isLive() ? track.component.get() : track.tree.get();
    if (component == nullptr)
        throw std::runtime_error("The track '" + track.name.str() + "' has gone");
    Subscription subscription;
    subscription.track = &track;
    subscription.component = component;
    subscription.capture = new zelData::FrameCapture(component, false);
    subscription.capture->setKeyFrameInterval(1);
    for (const zel::Path& path : paths)
        subscription.capture->addDataBinding(path, true);
    ofClient.insert_or_assign(track.id, std::move(subscription));
}

void InspectionFrames::unsubscribe(InspectionRequest& request) {
    const InspectionTrack& track = m_tracks.require(request);
    const auto client = m_clients.find(request.socket);
    if (client == m_clients.end() || client->second.erase(track.id) == 0)
        throw std::runtime_error("The track '" + track.name.str() + "' is not subscribed to");
}

void InspectionFrames::acknowledge(const InspectionRequest& request) {
    const uint64 id = request.wholeNumber("id", ~uint64{0});
    const uint64 frame = request.wholeNumber("frame", ~uint64{0});
    const auto client = m_clients.find(request.socket);
    if (client == m_clients.end())
        return;
    const auto subscription = client->second.find(id);
    if (subscription == client->second.end())
        return;
    std::deque<uint64>& waiting = subscription->second.unacknowledged;
    const auto place = std::find(waiting.begin(), waiting.end(), frame);
    if (place != waiting.end())
        waiting.erase(waiting.begin(), place + 1);
}

bool InspectionFrames::send(WebSocket* socket, Subscription& subscription, bool& hasSent) {
    if (!subscription.component)
        return false;
    const InspectionTrack& track = *subscription.track;
    zel::Clock* clock = track.clock.get();
    if (subscription.unacknowledged.size() >= MaxUnacknowledged ||
        (track.isLive() ? clock == nullptr : !track.hasFrames()))
        return true;
    const auto shown = track.isLive() ? std::make_pair(uint64{clock->getFrame()}, clock->getTime())
                                      : std::make_pair(track.tree->getRevision(), 0.0);
    if (subscription.hasSent && shown == subscription.shown)
        return true;
    try {
        zel::ref_ptr<zelData::Frame> frame;
        if (track.isLive()) {
            frame = subscription.capture->capture(clock);
        } else {
            const auto& record = track.tree->getRecord(track.tree->getPlace());
            if (!std::isfinite(record.timeStamp) || !std::isfinite(record.timeStep))
                return true; // a packet can not tell it
            frame = subscription.capture->capture(record.index, record.timeStamp, record.timeStep);
        }
        const zel::ref_ptr<WebSocket::Packet> packet(new WebSocket::Packet(frame.get(), "FrameArchive"));
        socket->send(packet.get());
        subscription.unacknowledged.push_back(frame->getIndex());
    } catch (const std::exception& error) {
        ZEL_LOG_WARNING("The frames of the track '" << track.name << "' can not be sent: " << error.what());
        return false;
    }
    subscription.shown = shown;
    subscription.hasSent = hasSent = true;
    return true;
}

bool InspectionFrames::update() {
    bool hasSent = false;
    for (auto& [socket, subscriptions] : m_clients) {
        if (!socket->isOpen() || socket->isAnonymous())
            continue;
        for (auto entry = subscriptions.begin(); entry != subscriptions.end();)
            entry = send(socket, entry->second, hasSent) ? std::next(entry) : subscriptions.erase(entry);
    }
    return hasSent;
}

} // namespace zelNet
