#pragma once

#include <zelData/Track.h>
#include <zelNet/FramePacket.h>

#include <transport/FramePacketFixture.h>
#include <transport/SocketFixture.h>
#include <transport/WebSocketFixture.h>

#include <string>

namespace zelTest {

/// Frames that cross sockets.
class StreamFixture : public Served<FramePacketFixture> {
protected:
    /// A frame without partial buffers, which nobody reads.
    static zel::ref_ptr<zelData::Frame> frameOf(zel::uint64 index) {
        zel::ref_ptr<zelData::Frame> frame(new zelData::Frame(index, static_cast<double>(index) / 2, 0.5));
        frame->setKeyFrame(true);
        const auto time = real("time", static_cast<double>(index));
        const auto bytes = makeBuffer<zel::uint8>("bytes", "UInt:8bit", {1, 2, 3});
        const auto masses = reals("masses", {1.5, 2.5, static_cast<double>(index)});
        time->setId(1);
        bytes->setId(2);
        masses->setId(3);
        frame->addValue(time.get(), "a.time");
        frame->addBuffer(bytes.get(), "bytes");
        frame->addBuffer(masses.get(), "a.masses");
        return frame;
    }
    /// Whether the frame holds what frameOf gave.
    static void expectFrame(const zel::ref_ptr<zelData::Frame>& frame, zel::uint64 index) {
        ASSERT_TRUE(frame);
        frame->setKeyFrame(true); // which a packet does not give back
        EXPECT_EQ(bytesOf(frame.get()), bytesOf(frameOf(index).get()));
    }
    /// The packet of a frame with another format in place of "Real:64bit", of which there is none.
    static std::string withUnknownFormat(std::string bytes) {
        const std::size_t place = bytes.find("Real:64bit");
        EXPECT_NE(place, std::string::npos);
        return bytes.replace(place, 10, "Real:65bit");
    }
    static zel::ref_ptr<zelData::Frame> read(zelData::FrameReader& reader) {
        return zel::ref_ptr<zelData::Frame>(reader.readFrame());
    }
};

} // namespace zelTest
