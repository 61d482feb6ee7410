#include <zel/SystemInformation.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/TempDirectory.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;
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
    ASSERT_FALSE(vendor.empty());
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
    // A stand-in, so that the test does not depend on what is installed.
    const zelTest::TempDirectory directory;
    directory.write("bin/lsb_release", "#!/bin/sh\nprintf 'Description:\\tTested %s\\n' \"$*\"\n");
    std::filesystem::permissions(directory.path("bin/lsb_release"), std::filesystem::perms::owner_all);
    setenv("PATH", (directory.path("bin") + ":/usr/bin:/bin").c_str(), 1);
    EXPECT_THAT(SystemInformation::getHardwareSpecification(),
                StartsWith("\tSystem: Description:\tTested -d\n\tCPU"));
}

TEST(SystemInformationTest, TheTextIsBuiltOnce) {
    EXPECT_EQ(&SystemInformation::getHardwareSpecification(), &SystemInformation::getHardwareSpecification());
}

TEST(SystemInformationTest, CountsTheOnlineProcessors) {
    EXPECT_EQ(SystemInformation::getNumCpu(), static_cast<size_t>(sysconf(_SC_NPROCESSORS_ONLN)));
    EXPECT_GE(SystemInformation::getNumCpu(), 1U);
}
