#include <zel/SystemInformation.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <string>

using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using zel::SystemInformation;

namespace {

/// A value of /proc/cpuinfo, for the first processor.
std::string cpuInfo(const std::string& key) {
    std::ifstream stream("/proc/cpuinfo");
    for (std::string line; std::getline(stream, line);)
        if (line.starts_with(key + "\t"))
            return line.substr(line.find(": ") + 2);
    return {};
}

} // namespace

TEST(SystemInformationTest, NamesTheProcessorAsTheKernelDoes) {
    const std::string vendor = cpuInfo("vendor_id");
    if (vendor.empty())
        GTEST_SKIP() << "the kernel tells nothing about the processor";
    EXPECT_THAT(SystemInformation::getHardwareSpecification(), HasSubstr("\tCPU   : " + vendor + " - "));
    EXPECT_THAT(SystemInformation::getHardwareSpecification(), HasSubstr(cpuInfo("model name")));
}

TEST(SystemInformationTest, TellsTheMemoryRoundedInMebibytesOrGibibytes) {
    struct sysinfo information {};
    ASSERT_EQ(sysinfo(&information), 0);
    const double mebibytes = static_cast<double>(information.totalram) * information.mem_unit / 1048576.0;
    const std::string size = mebibytes < 2048 ? std::to_string(std::lround(mebibytes)) + " MiB"
                                              : std::to_string(std::lround(mebibytes / 1024)) + " GiB";
    EXPECT_THAT(SystemInformation::getHardwareSpecification(), EndsWith("\tMemory: " + size + " RAM\n"));
}

TEST(SystemInformationTest, TheSystemLineNeedsTheTool) {
    setenv("PATH", "/nonexistent", 1);
    EXPECT_TRUE(SystemInformation::getHardwareSpecification().starts_with("\tCPU   : "));
}

TEST(SystemInformationTest, TheSystemLineIsWhatTheToolWrites) {
    if (std::system("lsb_release -d >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "lsb_release is not installed";
    EXPECT_THAT(SystemInformation::getHardwareSpecification(),
                ContainsRegex("^\tSystem: Description:\t.+\n\tCPU"));
}

TEST(SystemInformationTest, TheTextIsBuiltOnce) {
    EXPECT_EQ(&SystemInformation::getHardwareSpecification(), &SystemInformation::getHardwareSpecification());
}

TEST(SystemInformationTest, CountsTheOnlineProcessors) {
    EXPECT_EQ(SystemInformation::getNumCpu(), static_cast<size_t>(sysconf(_SC_NPROCESSORS_ONLN)));
    EXPECT_GE(SystemInformation::getNumCpu(), 1U);
}
