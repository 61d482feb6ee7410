// Joins two texts, apart by a null character, as paths and looks at what every joined path must be.

#include <zel/Verify.h>
#include <zelIO/FileSystem.h>

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

using zel::String;
using zelIO::FileSystem;

namespace {

/// A clean path has no empty and no "." parts, and ".." only at its front.
void checkClean(const String& path) {
    if (path == "." || path == "/")
        return;
    std::istringstream stream(path.substr(path.starts_with('/') ? 1 : 0));
    bool atFront = true;
    for (std::string part; std::getline(stream, part, '/');) {
        zelVerify(!part.empty() && part != ".");
        zelVerify(part != ".." || atFront);
        atFront = atFront && part == "..";
    }
    zelVerify(!path.ends_with('/'));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(data, data + size);
    const size_t middle = input.find('\0');
    const String a = input.substr(0, middle);
    String b = middle == std::string::npos ? "" : input.substr(middle + 1);
    b = b.substr(0, b.find('\0'));
    if (a.empty() && b.empty()) // fatal by contract
        return 0;

    const String path = FileSystem::combinePath(a, b);
    zelVerify(!path.empty());
    zelVerify(path.find('\\') == String::npos);
    checkClean(path);
    if (!FileSystem::exists(path))
        zelVerify(FileSystem::combinePath(path, "") == path);
    return 0;
}
