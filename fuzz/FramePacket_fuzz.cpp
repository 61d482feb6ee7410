// Frames from peers, for readers that must survive any bytes: they give a frame, which can be written and
// read again, or a std::runtime_error.
#include "Support.h"

#include <zel/ref_ptr.h>
#include <zelData/Frame.h>
#include <zelNet/FramePacket.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using zelData::Frame;
using zelNet::FramePacket;

zel::ref_ptr<Frame> parse(std::vector<std::uint8_t> bytes) {
    return zel::ref_ptr<Frame>(
        FramePacket::parseFrame(bytes.data(), bytes.size(), FramePacket::OnFault::Throw));
}

std::vector<std::uint8_t> write(const Frame* frame) {
    const zel::ref_ptr<FramePacket> packet(new FramePacket(frame));
    std::ostringstream segment;
    packet->writeDataSegment(segment);
    std::string bytes(sizeof(packet->getPreHeader()), '\0');
    packet->getPreHeader().write(reinterpret_cast<zel::uint8*>(bytes.data()));
    bytes += packet->getHeaderText() + std::string(packet->getPaddingSize(), '\xFF') + segment.str();
    return {bytes.begin(), bytes.end()};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zelFuzz::initQuietly();
    zel::ref_ptr<Frame> frame;
    try {
        frame = parse({data, data + size});
    } catch (const std::runtime_error&) {
        return 0;
    }
    if (frame->getNumBytes() != Frame::calculateNumBytes(frame.get()))
        std::abort();
    // An infinite time is written and not read.
    const std::vector<std::uint8_t> bytes = write(frame.get());
    if (std::string(bytes.begin(), bytes.end()).find("1e+9999") != std::string::npos)
        return 0;
    const zel::ref_ptr<Frame> again = parse(bytes);
    if (again->getIndex() != frame->getIndex() || again->getTimeStamp() != frame->getTimeStamp() ||
        again->getNumBytes() != Frame::calculateNumBytes(again.get()))
        std::abort();
    // Empty nodes are left out the first time, and arrays are written with where their elements lie.
    if (parse(write(again.get()))->getNumBytes() != again->getNumBytes())
        std::abort();
    return 0;
}
