#include <zel/String.h>
#include <zelCore/Version.h>

#include <cstring>

namespace zelCore {

namespace {

/// 1 to 12 for the first three letters of a month, as in __DATE__.
int monthNumber(const char* date) {
    static constexpr char Months[] = "JanFebMarAprMayJunJulAugSepOctNovDec";
    for (const char* month = Months; *month != '\0'; month += 3)
        if (std::memcmp(month, date, 3) == 0)
            return static_cast<int>(month - Months) / 3 + 1;
    return 0;
}

} // namespace

const char* zelGetCompanyName() {
    return "Norvane";
}

const char* zelGetLibraryName() {
    return "ZEL Library 64Bit";
}

std::string zelGetVersion(bool allParts) {
    if (!allParts)
        return zel::String::format("%d.%d", ZEL_VERSION_GENERATION, ZEL_VERSION_MAJOR);
    return zel::String::format(
        "%d.%d.%d.%d", ZEL_VERSION_GENERATION, ZEL_VERSION_MAJOR, ZEL_VERSION_MINOR, ZEL_VERSION_PATCH);
}

zel::uint32 zelGetVersionNumber() {
    return ZEL_GET_VERSION();
}

int zelGetSerializationVersion() {
    return ZEL_SERIALIZATION_VERSION;
}

std::string zelGetBuildDate(bool numeric) {
    std::string date = __DATE__; // "Mmm dd yyyy", the day padded with a blank
    if (!numeric)
        return date;
    const std::string day = date[4] == ' ' ? "0" + date.substr(5, 1) : date.substr(4, 2);
    return zel::String::format("%s-%02d-%s", date.substr(7).c_str(), monthNumber(date.c_str()), day.c_str());
}

const char* zelGetBuildTime() {
    return __TIME__;
}

const char* zelGetBuildType() {
    return ZEL_CPP_BUILD_TYPE;
}

const char* zelGetCppBuildFlags() {
    return ZEL_CPP_BUILD_FLAGS;
}

} // namespace zelCore
