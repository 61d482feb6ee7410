// Calls of tasks by messages, whatever their headers say: a task that runs, or a std::runtime_error, ahead of
// which no parameter has been bound. Inputs are the header, a NUL and the payload.
#include "RemoteTree.h"
#include "Support.h"

#include <zel/Stream.h>
#include <zel/ref_ptr.h>
#include <zelNet/StructuredMessage.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <stdexcept>
#include <vector>

namespace {

/// The message as it comes; null where the header is none.
zel::ref_ptr<zelNet::StructuredMessage> parse(const std::uint8_t* data, std::size_t size) {
    using zelNet::StructuredMessage;
    const auto* const separator = std::find(data, data + size, 0);
    StructuredMessage::PreHeader numbers;
    numbers.headerSize = static_cast<zel::uint32>(separator - data);
    std::vector<std::uint8_t> bytes(sizeof(numbers));
    bytes.insert(bytes.end(), data, separator);
    bytes.resize((bytes.size() + 31) / 32 * 32);
    if (separator != data + size) {
        numbers.payloadOffset = static_cast<zel::uint32>(bytes.size());
        bytes.insert(bytes.end(), separator + 1, data + size);
        numbers.payloadSize = static_cast<zel::uint32>(bytes.size()) - numbers.payloadOffset;
    }
    numbers.write(bytes.data());
    try {
        return zel::ref_ptr<StructuredMessage>(StructuredMessage::parse(bytes.data(), bytes.size(), true));
    } catch (const std::runtime_error&) {
        return {};
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zelFuzz::initQuietly();
    std::cout.rdbuf(nullptr); // what fails is printed
    std::cerr.rdbuf(nullptr);
    const zel::ref_ptr<zelNet::StructuredMessage> message = parse(data, size);
    if (!message)
        return 0;
    const zelFuzz::RemoteTree tree;
    try {
        const zel::ref_ptr<zel::Stream::FunctionEvent> event(new zel::Stream::FunctionEvent(message.get()));
        event->evaluate();
    } catch (const std::runtime_error&) {
        // What a message gets that does not fit.
    }
    return 0;
}
