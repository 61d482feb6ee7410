// A message that comes in pieces, whatever each piece says of what follows: it comes together as it was sent.
#include "Support.h"

#include <zel/ref_ptr.h>
#include <zelNet/WebSocket.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zelFuzz::initQuietly();
    const zel::ref_ptr<zelNet::WebSocket> socket(new zelNet::WebSocket(nullptr, nullptr, false));
    std::string received, expected;
    socket->setReceiveCallback([&](auto*, zel::uint8* bytes, zel::size_t length) {
        received.assign(reinterpret_cast<const char*>(bytes), length);
    });
    while (size >= 3) {
        // What is to be done, the length of the piece, and what is announced.
        const unsigned action = data[0] % 8;
        const std::size_t length = std::min<std::size_t>(data[1], size - 3);
        const std::size_t announced = std::size_t{data[2]} << (action * 2);
        std::string piece(reinterpret_cast<const char*>(data) + 3, length);
        data += 3 + length;
        size -= 3 + length;
        if (action == 7) {
            socket->resetPartialMessage();
            expected.clear();
            continue;
        }
        socket->appendPartialMessage(piece.data(), piece.size(), announced);
        expected += piece;
        if (action == 6) {
            socket->receivePartialMessage();
            if (received != expected || socket->hasPartialMessage())
                std::abort();
            expected.clear();
        }
    }
    return 0;
}
