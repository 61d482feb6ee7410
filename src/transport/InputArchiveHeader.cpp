#include "ArchiveHeader.h"

#include <zel/Log.h>
#include <zelStream/InputArchive.h>

#include <array>
#include <cstdlib>

// What stands ahead of the objects of an archive, in the order of each version that wrote it.

namespace zelStream {

namespace {

zel::String listOf(const std::array<zel::uint8, 5>& sizes) {
    return zel::String::format(
        "long %u, pointer %u, int %u, double %u, float %u", sizes[0], sizes[1], sizes[2], sizes[3], sizes[4]);
}

const char* getComparisonString(zel::uint32 a, zel::uint32 b) {
    return a < b ? "less than" : a > b ? "greater than" : "equal to";
}

constexpr const char* Consequence = ". This can lead to restore problems.";

} // namespace

void InputArchive::reset() {
    letGo();
    m_failure.clear();
    m_modifications.clear();
    m_endianMatch = true;
    m_serializationVersion = 0;
    m_version = 0;
    for (zel::String* text :
         {&m_revision, &m_appName, &m_buildDate, &m_buildTime, &m_archiveDate, &m_foreignSizes})
        text->clear();
    m_buildFlags.clear();
    m_numBytesRead = 0;
    m_numObjects = 0;
}

template <ArchiveScalar T>
T InputArchive::getRawAttribute(const char* name) {
    ScalarForm form = scalarFormOf<T>();
    form.isRaw = true;
    T value{};
    readScalar(name, &value, form);
    return value;
}

void InputArchive::readHeader() {
    beginSection("Archive");
    readByteOrder();
    beginSection("Version");
    if (getRawAttribute<zel::uint32>("magic") != Magic)
        fail("Invalid archive format (bad magic)");
    warnOfForeignSizes();
    getAttribute("appName", m_appName);
    const auto generation = getRawAttribute<zel::uint8>("generation");
    const auto major = getRawAttribute<zel::uint8>("major");
    const auto minor = getRawAttribute<zel::uint8>("minor");
    m_version = ZEL_CALC_VERSION(generation, major, minor, getRawAttribute<zel::uint8>("patch"));
    if (m_version >= WithTextRevision)
        getAttribute("revision", m_revision);
    else if (m_version >= WithRevision)
        m_revision = zel::String::format("%d", getRawAttribute<zel::int32>("revision"));
    if (m_version >= WithoutOldFlags)
        m_serializationVersion = getRawAttribute<zel::uint16>("serializationVersion");
    if (m_version >= WithBuildInfo)
        readBuildInfo();
    if (m_version >= WithSerializationVersion && m_version < WithoutOldFlags)
        m_serializationVersion = getRawAttribute<zel::uint16>("serializationVersion");
    if (m_serializationVersion >= WithDate)
        getAttribute("date", m_archiveDate);
    endSection("Version");
    if (m_serializationVersion >= WithModifications)
        readModifications();
}

void InputArchive::readByteOrder() {
    zel::uint8 isLittle = 0;
    read(&isLittle, 1);
    m_endianMatch = (isLittle == 1) == IsLittleEndianMachine;
    readCompareBitSize();
}

void InputArchive::readCompareBitSize() {
    std::array<zel::uint8, TypeSizes.size()> sizes{};
    read(sizes.data(), sizes.size());
    if (sizes != TypeSizes)
        m_foreignSizes = listOf(sizes);
}

void InputArchive::warnOfForeignSizes() const {
    if (!m_foreignSizes.empty())
        ZEL_LOG_WARNING("The archive was written where the sizes of types are others ("
                        << m_foreignSizes << ") than here (" << listOf(TypeSizes) << ")" << Consequence);
}

void InputArchive::readBuildInfo() {
    const ScopedSection section(*this, "BuildInfo");
    getAttribute("buildDate", m_buildDate);
    getAttribute("buildTime", m_buildTime);
    for (const ArchiveBuildFlag& flag : ArchiveBuildFlags) {
        if (flag.isOld && m_version >= WithoutOldFlags)
            continue;
        bool isSet = false;
        getAttribute(flag.name, isSet);
        m_buildFlags.push_back({flag.name, isSet});
    }
}

void InputArchive::readModifications() {
    const ScopedSection section(*this, "Modifications");
    zel::uint64 size = 0;
    getAttribute("size", size);
    for (zel::uint64 i = 0; i < size; ++i) {
        zel::String hash;
        read(hash);
        if (!getKnownModifications().contains(hash))
            ZEL_LOG_WARNING(
                "The archive contains a modification hash-string that is not recognized by ZEL Core: ("
                << hash << ")" << Consequence);
        m_modifications.insert(hash);
    }
}

bool InputArchive::hasModification(const zel::String& hash) const {
    return m_serializationVersion >= WithModifications && Archive::hasModification(hash);
}

zel::Vector<zel::String> InputArchive::getModifications() const {
    return sorted(m_modifications);
}

zel::String InputArchive::getVersionStringMessage() const {
    return zel::String::format("ZEL version: %d.%d.%d.%d is %s archive version: %d.%d.%d.%d",
                               ZEL_VERSION_GENERATION,
                               ZEL_VERSION_MAJOR,
                               ZEL_VERSION_MINOR,
                               ZEL_VERSION_PATCH,
                               getComparisonString(ZEL_GET_VERSION(), m_version),
                               getGenerationVersion(),
                               getMajorVersion(),
                               getMinorVersion(),
                               getPatchVersion());
}

void InputArchive::warnOfNewerWriter() const {
    if (m_version > ZEL_GET_VERSION())
        ZEL_LOG_WARNING(getVersionStringMessage() << Consequence);
    if (m_serializationVersion > ZEL_SERIALIZATION_VERSION)
        ZEL_LOG_WARNING(
            zel::String::format("ZEL serialization version: %d is %s archive serialization version: %d",
                                ZEL_SERIALIZATION_VERSION,
                                getComparisonString(ZEL_SERIALIZATION_VERSION, m_serializationVersion),
                                m_serializationVersion)
            << Consequence);
}

} // namespace zelStream
