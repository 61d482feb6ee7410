// Paths: the parts join to the whole, whatever the text.
#include <zel/Path.h>

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

void require(bool condition) {
    if (!condition)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    // Names end at the first zero.
    text.erase(std::min(text.find('\0'), text.size()));
    const zel::Path path(text);
    std::string joined;
    std::size_t count = 0;
    for (const zel::Name part : path) {
        joined += count++ == 0 ? "" : ".";
        joined += part.str();
    }
    require(joined == path.str());
    require(path.empty() == (count == 0));
    if (path.hasTail()) {
        require(path.root().str() + "." + path.tail().str() == path.str());
        require(path.base().str() + "." + path.back().str() == path.str());
    } else {
        require(path.root().str() == path.str() && path.back().str() == path.str());
    }
    require(path.contains(path) && path.contains(zel::Path()));
    require(path.empty() || path.contains(path.root()));
    return 0;
}
