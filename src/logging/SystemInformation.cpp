#include <zel/String.h>
#include <zel/SystemInformation.h>

#include <cpuid.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace zel {

namespace {

/// What a command writes to its standard output; empty if it fails.
std::string commandOutput(const char* command) {
    std::FILE* pipe = popen(command, "r");
    if (pipe == nullptr)
        return {};
    std::string output;
    std::array<char, 1000> block{};
    while (const size_t length = std::fread(block.data(), 1, block.size(), pipe))
        output.append(block.data(), length);
    const bool failed = std::ferror(pipe) != 0;
    return pclose(pipe) == 0 && !failed ? output : std::string();
}

struct Cpuid {
    explicit Cpuid(unsigned leaf) { __cpuid(leaf, a, b, c, d); }
    unsigned a = 0;
    unsigned b = 0;
    unsigned c = 0;
    unsigned d = 0;
};

std::string processorVendor() {
    const Cpuid id(0);
    const std::array<unsigned, 3> words{id.b, id.d, id.c};
    std::array<char, 13> text{};
    std::memcpy(text.data(), words.data(), 12);
    return text.data();
}

std::string processorBrand() {
    if (Cpuid(0x80000000U).a <= 0x80000003U)
        return {};
    std::array<char, 49> text{};
    char* part = text.data();
    for (unsigned leaf = 0x80000002U; leaf <= 0x80000004U; ++leaf, part += 16) {
        const Cpuid id(leaf);
        const std::array<unsigned, 4> words{id.a, id.b, id.c, id.d};
        std::memcpy(part, words.data(), 16);
    }
    return text.data();
}

std::string describeHardware() {
    std::string text;
    // Without the tool there is no line, and its absence is no news for the user's terminal.
    const std::string system = commandOutput("lsb_release -d 2>/dev/null");
    if (!system.empty())
        text += "\tSystem: " + system;

    text += String::format("\tCPU   : %s - %s\n", processorVendor().c_str(), processorBrand().c_str());

    struct sysinfo information {};
    if (sysinfo(&information) != 0)
        return text;
    const double mebibytes =
        static_cast<double>(information.totalram) * information.mem_unit / (1024.0 * 1024.0);
    const bool small = mebibytes < 2048.0;
    const long rounded = std::lround(small ? mebibytes : mebibytes / 1024.0);
    text += "\tMemory: " + std::to_string(rounded) + (small ? " MiB" : " GiB") + " RAM\n";
    return text;
}

} // namespace

const std::string& SystemInformation::getHardwareSpecification() {
    // Never freed: a log may be opened by a static destructor.
    static const std::string* const s_specification = new std::string(describeHardware());
    return *s_specification;
}

size_t SystemInformation::getNumCpu() {
    static const auto s_numCpu = static_cast<size_t>(std::max(sysconf(_SC_NPROCESSORS_ONLN), 1L));
    return s_numCpu;
}

} // namespace zel
