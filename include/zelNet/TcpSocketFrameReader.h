#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/ref_ptr.h>
#include <zelData/BinaryData.h>
#include <zelData/FrameIO.h>
#include <zelData/SerializedFrame.h>
#include <zelNet/IPAddress.h>
#include <zelNet/StructuredMessage.h>
#include <zelNet/TCPSocket.h>

#include <json/forwards.h>

#include <memory>

namespace zelNet {

/// Receives the frames of a TcpSocketFrameWriter. Frames own their elements.
///
/// The nodes of a packet that name formats or entities that are not known here, or do not fit their payload,
/// end the process, where nothing else is asked for: both ends are built from one model of the data.
/// @threads external lock: the track's, once it has one
class ZEL_CORE_API TcpSocketFrameReader : public zelData::FrameReader {
public:
    /// A longer header closes the reader.
    static constexpr zel::uint32 MaxHeaderSize = zel::uint32{256} << 20;

    /// Connects, and waits for the first header. A reader for a server that is absent gives no frames.
    explicit TcpSocketFrameReader(const IPAddress& address);
    /// The same on a socket that is open.
    /// @param onFault  with Throw, this and readFrame throw a std::runtime_error for a packet that ends the
    ///     process otherwise
    explicit TcpSocketFrameReader(
        TCPSocket* socket,
        zelData::SerializedFrame::OnFault onFault = zelData::SerializedFrame::OnFault::EndProcess);
    TcpSocketFrameReader(const TcpSocketFrameReader&) = delete;
    TcpSocketFrameReader& operator=(const TcpSocketFrameReader&) = delete;
    ~TcpSocketFrameReader() override;

    /// Waits for the next frame.
    /// @return null at the end of the stream, and once the connection has ended, something else than frames
    /// has
    ///     come, or the track that reads here does not run
    [[nodiscard]] zelData::Frame* readFrame() override;
    /// A stream cannot go elsewhere.
    /// @return false
    bool jumpToFrame(zel::uint64 index) override;
    /// Nobody knows; a track takes no frame of its cache for the next one then.
    /// @return InvalidIndex
    [[nodiscard]] zel::uint64 getNextFrameIndex() override;

    /// Whether frames may come: false once the connection has failed.
    [[nodiscard]] bool isOpen() const noexcept { return m_open; }

private:
    bool readHeader();
    void readPadding(zel::uint64 numBytes);
    /// Into the buffer, which grows with what comes.
    void readPayload();
    void begin();
    void close();
    [[nodiscard]] bool isAtEnd() const noexcept;

    zel::ref_ptr<TCPSocket> m_socket;
    std::unique_ptr<Json::Value> m_header; // read ahead; null if it is not
    zel::ref_ptr<zelData::BinaryData> m_buffer;
    StructuredMessage::PreHeader m_preHeader;
    bool m_open = true;
    zelData::SerializedFrame::OnFault m_onFault = zelData::SerializedFrame::OnFault::EndProcess;
};

} // namespace zelNet
