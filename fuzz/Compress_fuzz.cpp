// Compressed bytes from peers: they give bytes, which come back when they are compressed, or null.
#include "Support.h"

#include <zelNet/Compress.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

using zelNet::Compress;

void require(bool condition) {
    if (!condition)
        std::abort();
}

void requireBack(const char* bytes, std::size_t size, int level) {
    const auto packed = Compress::compress(bytes, size, level);
    const auto plain = Compress::decompress(packed.get());
    require(plain->getSize() == size);
    require(size == 0 || std::memcmp(plain->getData(), bytes, size) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zelFuzz::initQuietly();
    const auto* bytes = reinterpret_cast<const char*>(data);
    if (const auto plain = Compress::decompress(bytes, size))
        requireBack(reinterpret_cast<const char*>(plain->getData()), plain->getSize(), 1);
    requireBack(bytes, size, 6);
    return 0;
}
