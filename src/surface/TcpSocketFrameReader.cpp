#include "transport/Envelope.h"

#include <zel/InvalidIndex.h>
#include <zel/Verify.h>
#include <zelData/Track.h>
#include <zelNet/FramePacket.h>
#include <zelNet/NetError.h>
#include <zelNet/TcpSocketFrameReader.h>
#include <zelNet/TcpSocketFrameWriter.h>

#include <json/value.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>

namespace zelNet {

using zel::uint32;
using zel::uint64;
using zel::uint8;
using OnFault = zelData::SerializedFrame::OnFault;

namespace {

constexpr uint32 EndMarker = 0xFFFFFFFF;
/// So much is asked for at once, and room made for, whatever a header announces.
constexpr uint64 PieceSize = uint64{1} << 20;

} // namespace

TcpSocketFrameReader::TcpSocketFrameReader(const IPAddress& address) : m_socket(new TCPSocket) {
    try {
        m_socket->open(address, false);
    } catch (const NetError&) {
        m_open = false;
    }
    begin();
}

TcpSocketFrameReader::TcpSocketFrameReader(TCPSocket* socket, OnFault onFault)
    : m_socket(socket), m_onFault(onFault) {
    begin();
}

TcpSocketFrameReader::~TcpSocketFrameReader() {
    m_socket->setMayWait({});
}

void TcpSocketFrameReader::begin() {
    m_socket->setMayWait([this] { return getTrack() == nullptr || getTrack()->isRunning(); });
    try {
        (void)readHeader();
    } catch (const NetError&) {
        close();
    } catch (...) {
        m_socket->setMayWait({}); // which would ask this
        throw;
    }
}

void TcpSocketFrameReader::close() {
    m_open = false;
    m_socket->close();
}

bool TcpSocketFrameReader::isAtEnd() const noexcept {
    return m_preHeader.headerSize == EndMarker && m_preHeader.payloadOffset == 0;
}

bool TcpSocketFrameReader::readHeader() {
    if (!m_open)
        return false;
    m_header = nullptr;
    uint8 bytes[sizeof(m_preHeader)];
    m_socket->recvBlocking(bytes, sizeof(bytes));
    m_preHeader = StructuredMessage::PreHeader::read(bytes);
    if (m_preHeader.headerSize == EndMarker)
        return false;
    if (m_preHeader.headerSize > MaxHeaderSize) {
        close();
        return false;
    }
    std::string text;
    while (text.size() < m_preHeader.headerSize) {
        const uint64 begin = text.size();
        const uint64 size = std::min(PieceSize, m_preHeader.headerSize - begin);
        text.resize(begin + size);
        m_socket->recvBlocking(reinterpret_cast<uint8*>(text.data()) + begin, static_cast<uint32>(size));
    }
    auto header = std::make_unique<Json::Value>();
    if (!parseJson(text, FramePacket::MaxHeaderDepth, *header)) {
        close();
        return false;
    }
    const uint64 textsEnd = sizeof(bytes) + m_preHeader.headerSize;
    if (m_preHeader.payloadOffset < textsEnd) { // which no sender writes
        close();
        return false;
    }
    readPadding(m_preHeader.payloadOffset - textsEnd);
    m_header = std::move(header);
    return true;
}

void TcpSocketFrameReader::readPadding(uint64 numBytes) {
    constexpr uint64 MAX_PADDING = TcpSocketFrameWriter::MAX_PADDING;
    if (numBytes > MAX_PADDING && m_onFault == OnFault::Throw) {
        close(); // where the next frame begins is not known
        throw std::runtime_error("TcpSocketFrameReader: More padding than a sender writes");
    }
    zelVerify(numBytes <= MAX_PADDING);
    uint8 bytes[MAX_PADDING];
    m_socket->recvBlocking(bytes, static_cast<uint32>(numBytes));
}

void TcpSocketFrameReader::readPayload() {
    const uint64 size = m_preHeader.payloadSize;
    if (!m_buffer)
        m_buffer = new zelData::BinaryData(zel::size_t{0});
    uint64 capacity = m_buffer->getSize();
    for (uint64 received = 0; received < size;) {
        if (received == capacity) {
            capacity = std::min(size, received + std::max(received, PieceSize));
            zel::ref_ptr<zelData::BinaryData> larger(new zelData::BinaryData(capacity));
            if (received != 0)
                std::memcpy(larger->getData(), m_buffer->getData(), received);
            m_buffer = larger;
        }
        const uint64 piece = std::min(size, capacity) - received;
        m_socket->recvBlocking(m_buffer->getData() + received, static_cast<uint32>(piece));
        received += piece;
    }
}

zelData::Frame* TcpSocketFrameReader::readFrame() {
    if (!m_open || isAtEnd())
        return nullptr;
    try {
        if (m_header == nullptr && !readHeader())
            return nullptr;
        readPayload();
    } catch (const NetError&) {
        close();
        return nullptr;
    }
    const zel::ref_ptr<zelData::BinaryData> payload(
        new zelData::BinaryData(m_buffer->getData(), m_preHeader.payloadSize, m_buffer.get()));
    const std::unique_ptr<Json::Value> header = std::move(m_header);
    return FramePacket::parseFrame(*header, payload.get(), m_onFault);
}

bool TcpSocketFrameReader::jumpToFrame(uint64 /*index*/) {
    return false;
}

zel::uint64 TcpSocketFrameReader::getNextFrameIndex() {
    return zel::InvalidIndex;
}

} // namespace zelNet
