#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/LockRank.h>
#include <zel/ref_ptr.h>
#include <zelData/FrameIO.h>
#include <zelData/SerializedFrame.h>
#include <zelNet/WebSocket.h>

#include <condition_variable>
#include <deque>
#include <exception>

namespace zelNet {

/// Receives the frames that come through a WebSocket. Somebody else services its server, on another thread
/// than the one that reads, or between two reads.
///
/// Frames that come faster than they are read wait here up to a limit, and from then on at the peer. A
/// message that is no frame is answered by the text of its fault.
/// @threads readFrame and releaseBlock from any thread
class ZEL_CORE_API WebSocketFrameReader : public zelData::FrameReader {
public:
    /// As long as more waits to be read, the peer waits too.
    static constexpr zel::size_t MaxWaitingBytes = zel::size_t{256} << 20;
    static constexpr zel::size_t MaxWaitingFrames = 1024;

    /// Takes the receive callback of the socket, and takes it away when it goes: a reader ahead of this one
    /// goes first.
    /// @param threaded  see FrameIO
    /// @param onFault  with Throw, readFrame throws a std::runtime_error in place of each message that is no
    ///     frame, or whose frame ends the process otherwise; the peer gets no answer then
    explicit WebSocketFrameReader(
        WebSocket* socket,
        bool threaded = true,
        zelData::SerializedFrame::OnFault onFault = zelData::SerializedFrame::OnFault::EndProcess);
    WebSocketFrameReader(const WebSocketFrameReader&) = delete;
    WebSocketFrameReader& operator=(const WebSocketFrameReader&) = delete;
    ~WebSocketFrameReader() override;

    /// Waits for the next frame. What has come is given first.
    /// @return null from releaseBlock on, and when the track that reads here does not run
    [[nodiscard]] zelData::Frame* readFrame() override;
    /// Nobody knows; a track takes no frame of its cache for the next one then.
    /// @return InvalidIndex
    [[nodiscard]] zel::uint64 getNextFrameIndex() override;
    /// No more frames come: wakes those that wait, for good. Such as a disconnect callback.
    void releaseBlock(WebSocket* socket);

private:
    struct Received {
        zel::ref_ptr<zelData::Frame> frame;
        zel::size_t numBytes;
        std::exception_ptr fault; // in place of the frame
    };

    [[nodiscard]] Received parse(zel::uint8* data, zel::size_t size) const;

    void messageReceivedCallback(WebSocket* socket, zel::uint8* data, zel::size_t size);
    /// The caller holds the mutex.
    [[nodiscard]] bool isAbove(zel::size_t numBytes, zel::size_t numFrames) const {
        return m_numBytes > numBytes || m_frames.size() > numFrames;
    }

    zel::ref_ptr<WebSocket> m_socket;
    zelData::SerializedFrame::OnFault m_onFault;
    zel::RankedMutex<zel::LockRank::FrameStream> m_mutex; // of all below
    std::condition_variable_any m_frameCame;
    bool m_isReleased = false;
    std::deque<Received> m_frames; // the oldest in front
    zel::size_t m_numBytes = 0;
    bool m_isPaused = false;
};

} // namespace zelNet
