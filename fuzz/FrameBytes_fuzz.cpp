// Headers and segments of frames, for readers that must survive any file: whatever the bytes are, they give a
// frame, which can be written and read again, or a std::runtime_error.
#include "Support.h"

#include <zel/ref_ptr.h>
#include <zelData/BinaryData.h>
#include <zelData/Frame.h>
#include <zelData/SerializedFrame.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <string>

namespace {

using zelData::BinaryData;
using zelData::Frame;
using zelData::SerializedFrame;

zel::ref_ptr<Frame> read(const BinaryData* header, const BinaryData* segment) {
    return zel::ref_ptr<Frame>(
        SerializedFrame::extractFrame(header, segment, SerializedFrame::OnFault::Throw));
}

} // namespace

// Two bytes: the length of the header; the header; the segment.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zelFuzz::initQuietly();
    if (size < 2)
        return 0;
    const std::size_t wanted = data[0] + 256U * data[1];
    const std::size_t length = wanted < size - 2 ? wanted : size - 2;
    const zel::ref_ptr<BinaryData> header(BinaryData::copy(data + 2, length));
    const zel::ref_ptr<BinaryData> segment(BinaryData::copy(data + 2 + length, size - 2 - length));
    zel::ref_ptr<Frame> frame;
    try {
        frame = read(header.get(), segment.get());
    } catch (const std::runtime_error&) {
        return 0;
    }
    if (frame->getNumBytes() != Frame::calculateNumBytes(frame.get()))
        std::abort();
    // Old events are read, and not written any more.
    for (const auto& event : frame->getEvents())
        if (dynamic_cast<const SerializedFrame::StorageBatchEvent*>(event.get()) == nullptr)
            return 0;
    const zel::ref_ptr<SerializedFrame> serialized(new SerializedFrame(frame.get()));
    const zel::ref_ptr<BinaryData> written = serialized->writeBinaryHeader();
    std::ostringstream stream;
    serialized->writeDataSegment(stream);
    const std::string bytes = stream.str();
    const zel::ref_ptr<Frame> again =
        read(written.get(), zel::ref_ptr<BinaryData>(BinaryData::copy(bytes.data(), bytes.size())).get());
    if (again->getEvents().size() != frame->getEvents().size())
        std::abort();
    return 0;
}
