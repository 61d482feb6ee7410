#include "ArchiveHeader.h"

#include <zel/Date.h>
#include <zelStream/OutputArchive.h>

#include <array>
#include <ctime>

// What stands ahead of the objects of an archive.

namespace zelStream {

void OutputArchive::addModification(const zel::String& hash) {
    verifyHash(hash);
    m_modifications.insert(hash);
}

void OutputArchive::addModifications(zel::HashSet<zel::String>& modifications) {
    for (const zel::String& hash : getKnownModifications())
        modifications.insert(hash);
}

template <ArchiveScalar T>
void OutputArchive::addRawAttribute(const char* name, T value) {
    ScalarForm form = scalarFormOf<T>();
    form.isRaw = true;
    writeScalar(name, &value, form);
}

void OutputArchive::writeHeader() {
    beginSection("Archive");
    writeByteOrder();
    beginSection("Version");
    addRawAttribute("magic", Magic);
    addAttribute("appName", m_appName);
    addRawAttribute("generation", zel::uint8{ZEL_VERSION_GENERATION});
    addRawAttribute("major", zel::uint8{ZEL_VERSION_MAJOR});
    addRawAttribute("minor", zel::uint8{ZEL_VERSION_MINOR});
    addRawAttribute("patch", zel::uint8{ZEL_VERSION_PATCH});
    addAttribute("revision", ""); // a release has none but its version
    addRawAttribute("serializationVersion", zel::uint16{ZEL_SERIALIZATION_VERSION});
    writeBuildInfo();
    addAttribute("date", getDateText());
    endSection("Version");
    writeModifications();
}

void OutputArchive::writeByteOrder() {
    const auto isLittle = static_cast<zel::uint8>(m_isLittleEndian ? 1 : 0);
    write(&isLittle, 1);
    write(TypeSizes.data(), TypeSizes.size());
}

void OutputArchive::writeBuildInfo() {
    beginSection("BuildInfo");
    addAttribute("buildDate", zelCore::zelGetBuildDate(false));
    addAttribute("buildTime", zelCore::zelGetBuildTime());
    for (const ArchiveBuildFlag& flag : ArchiveBuildFlags)
        if (!flag.isOld)
            addAttribute(flag.name, flag.isSet);
    endSection("BuildInfo");
}

void OutputArchive::writeModifications() {
    addModifications(m_modifications);
    const zel::Vector<zel::String> modifications = sorted(m_modifications);
    beginSection("Modifications");
    addAttribute("size", zel::uint64{modifications.size()});
    for (const zel::String& hash : modifications)
        write(hash);
    endSection("Modifications");
}

zel::String OutputArchive::getDateText() const {
    if (!m_useCurrentDate)
        return zelCore::zelGetBuildDate(true) + "T" + zelCore::zelGetBuildTime();
    const std::tm now = zel::Date::now().localTime();
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &now);
    return text.data();
}

} // namespace zelStream
