// Bytes from a sender of frames, over a socket, as a stream and as messages: the reader gives frames, throws
// a std::runtime_error, or ends.
#include "Support.h"

#include <zel/ref_ptr.h>
#include <zelData/Frame.h>
#include <zelNet/TCPSocket.h>
#include <zelNet/TcpSocketFrameReader.h>
#include <zelNet/WebSocket.h>
#include <zelNet/WebSocketFrameReader.h>

#include <sys/socket.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <vector>

namespace {

using zel::ref_ptr;
using zelData::Frame;
using zelData::SerializedFrame;
using zelNet::TCPSocket;

/// One end of a connection within the process.
class End : public TCPSocket {
public:
    explicit End(int descriptor) { m_socket = descriptor; }
};

void check(const Frame* frame) {
    if (frame->getNumBytes() != Frame::calculateNumBytes(frame))
        std::abort();
}

/// Reads until the end.
/// @return how many frames came
std::size_t readStream(const std::uint8_t* data, std::size_t size) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0)
        std::abort();
    const ref_ptr<TCPSocket> receiver(new End(ends[0]));
    {
        const ref_ptr<TCPSocket> sender(new End(ends[1]));
        sender->sendBlocking(data, static_cast<zel::uint32>(size));
    }
    std::size_t numFrames = 0;
    try {
        zelNet::TcpSocketFrameReader reader(receiver.get(), SerializedFrame::OnFault::Throw);
        for (;;) {
            try {
                const ref_ptr<Frame> frame(reader.readFrame());
                if (!frame)
                    return numFrames;
                check(frame.get());
            } catch (const std::runtime_error&) {
                // Of this frame; others may follow.
            }
            ++numFrames;
        }
    } catch (const std::runtime_error&) {
        // The header of the first one is read by the constructor.
    }
    return numFrames;
}

/// Cuts the bytes into messages where their lengths say so, and reads each.
void readMessages(std::vector<std::uint8_t> bytes) {
    const ref_ptr<zelNet::WebSocket> socket(new zelNet::WebSocket(nullptr, nullptr, false));
    const ref_ptr<zelNet::WebSocketFrameReader> reader(
        new zelNet::WebSocketFrameReader(socket.get(), false, SerializedFrame::OnFault::Throw));
    std::size_t numSent = 0;
    for (std::size_t begin = 0; begin < bytes.size(); ++numSent) {
        const std::size_t left = bytes.size() - begin - 1;
        const std::size_t length = std::min<std::size_t>(left, std::size_t{bytes[begin]} << 3);
        socket->messageReceived(bytes.data() + begin + 1, length);
        begin += 1 + length;
    }
    reader->releaseBlock(socket.get());
    for (std::size_t i = 0; i <= numSent; ++i)
        try {
            const ref_ptr<Frame> frame(reader->readFrame());
            if ((frame == nullptr) != (i == numSent))
                std::abort();
            if (frame)
                check(frame.get());
        } catch (const std::runtime_error&) {
            if (i == numSent)
                std::abort();
        }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zelFuzz::initQuietly();
    if (size == 0)
        return 0;
    if (data[0] % 2 == 0) {
        // Each frame has a pre-header, and one that is refused takes no more of the stream than it said.
        if (readStream(data + 1, size - 1) > size / 24)
            std::abort();
    } else {
        readMessages({data + 1, data + size});
    }
    return 0;
}
