#pragma once

#include "StructuredMessageFixture.h"

#include <zelNet/FramePacket.h>

#include <frames/SerializedFixture.h>
#include <json/writer.h>

#include <cstddef>
#include <string>

namespace zelTest {

/// Frames as packets and back.
class FramePacketFixture : public SerializedFixture {
protected:
    using OnFault = zelData::SerializedFrame::OnFault;

    /// The whole packet, as a sender puts it together.
    static std::string bytesOf(const zelNet::FramePacket& packet) {
        std::string bytes(24, '\0');
        packet.getPreHeader().write(reinterpret_cast<zel::uint8*>(bytes.data()));
        return bytes + packet.getHeaderText() + std::string(packet.getPaddingSize(), '\xFF') +
               textOf(segmentOf(packet).get());
    }
    static std::string bytesOf(const zelData::Frame* frame) {
        return bytesOf(*zel::ref_ptr<zelNet::FramePacket>(new zelNet::FramePacket(frame)));
    }
    /// The frame in exactly these bytes.
    static zel::ref_ptr<zelData::Frame> parseFrame(std::string bytes, OnFault onFault = OnFault::EndProcess) {
        return zel::ref_ptr<zelData::Frame>(zelNet::FramePacket::parseFrame(
            reinterpret_cast<zel::uint8*>(bytes.data()), bytes.size(), onFault));
    }
    static std::string lineOf(const Json::Value& json) { return Json::FastWriter().write(json); }
};

} // namespace zelTest
