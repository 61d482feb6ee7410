#include <zel/InvalidIndex.h>
#include <zelData/Track.h>
#include <zelNet/FramePacket.h>
#include <zelNet/WebSocketFrameReader.h>

#include <chrono>
#include <mutex>
#include <utility>

namespace zelNet {

using OnFault = zelData::SerializedFrame::OnFault;

WebSocketFrameReader::WebSocketFrameReader(WebSocket* socket, bool threaded, OnFault onFault)
    : FrameReader(threaded), m_socket(socket), m_onFault(onFault) {
    socket->setReceiveCallback([this](WebSocket* sender, zel::uint8* data, zel::size_t size) {
        messageReceivedCallback(sender, data, size);
    });
}

WebSocketFrameReader::~WebSocketFrameReader() {
    m_socket->setReceiveCallback({});
    m_socket->setPaused(false);
}

WebSocketFrameReader::Received WebSocketFrameReader::parse(zel::uint8* data, zel::size_t size) const {
    try {
        return {zel::ref_ptr<zelData::Frame>(FramePacket::parseFrame(data, size, m_onFault)), size, {}};
    } catch (const std::exception&) {
        if (m_onFault == OnFault::EndProcess)
            throw;
        return {{}, size, std::current_exception()};
    }
}

void WebSocketFrameReader::messageReceivedCallback(WebSocket* socket, zel::uint8* data, zel::size_t size) {
    Received received = parse(data, size);
    bool mustPause = false;
    {
        const std::lock_guard lock(m_mutex);
        m_frames.push_back(std::move(received));
        m_numBytes += size;
        mustPause = !m_isPaused && isAbove(MaxWaitingBytes, MaxWaitingFrames);
        if (mustPause)
            m_isPaused = true;
    }
    m_frameCame.notify_one();
    if (mustPause)
        socket->setPaused(true);
}

zelData::Frame* WebSocketFrameReader::readFrame() {
    Received received{};
    bool mustGoOn = false;
    {
        std::unique_lock lock(m_mutex);
        const auto mayReturn = [this] {
            return !m_frames.empty() || m_isReleased || (getTrack() != nullptr && !getTrack()->isRunning());
        };
        // The track tells nobody when it is stopped.
        while (!m_frameCame.wait_for(lock, std::chrono::milliseconds(100), mayReturn))
            continue;
        if (m_frames.empty())
            return nullptr;
        received = std::move(m_frames.front());
        m_frames.pop_front();
        m_numBytes -= received.numBytes;
        mustGoOn = m_isPaused && !isAbove(MaxWaitingBytes / 2, MaxWaitingFrames / 2);
        if (mustGoOn)
            m_isPaused = false;
    }
    if (mustGoOn)
        m_socket->setPaused(false);
    if (received.fault != nullptr)
        std::rethrow_exception(received.fault);
    return received.frame.release_nodelete();
}

void WebSocketFrameReader::releaseBlock(WebSocket* /*socket*/) {
    {
        const std::lock_guard lock(m_mutex);
        m_isReleased = true;
    }
    m_frameCame.notify_all();
}

zel::uint64 WebSocketFrameReader::getNextFrameIndex() {
    return zel::InvalidIndex;
}

} // namespace zelNet
