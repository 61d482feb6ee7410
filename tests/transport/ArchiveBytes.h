#pragma once

#include <zel/Integers.h>
#include <zel/Uuid.h>

#include <array>
#include <bit>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace zelTest {

/// A choice of the writer's build, as the header of an archive tells it.
struct ArchiveFlag {
    const char* name;
    bool isOld; ///< below 2.38.0.0 alone
    bool isSet;
};

inline constexpr std::array<ArchiveFlag, 10> ArchiveFlags{{{"USE_64BIT_ARCHITECTURE", true, true},
                                                           {"USE_SSE", false, true},
                                                           {"USE_REAL_FLOAT", true, false},
                                                           {"VIREO_USE_SSE3", false, false},
                                                           {"VIREO_USE_PADDING", false, true},
                                                           {"USE_LUA", true, true},
                                                           {"USE_OSG", false, false},
                                                           {"UNITTEST_ENABLED", false, true},
                                                           {"USE_PARTICLE_SYSTEM", false, false},
                                                           {"USE_OPENCL", false, true}}};

/// What the header of an archive tells.
struct ArchiveHead {
    std::array<zel::uint8, 4> version{2, 40, 0, 0};
    zel::uint16 serialization = 90;
    bool isLittleEndian = true;
    std::string appName = "depot";
    zel::uint32 oldRevision = 1234; ///< of versions that keep it as a number
    std::string revision = "r77";
    std::string buildDate = "2026-02-03";
    std::string buildTime = "04:05:06";
    std::string date = "2026-02-03T07:08:09";
    std::array<ArchiveFlag, 10> flags = ArchiveFlags;
    std::vector<std::string> modifications{"904156fd"};

    [[nodiscard]] bool isBelow(zel::uint8 major, zel::uint8 minor, zel::uint8 patch) const {
        return version < std::array<zel::uint8, 4>{2, major, minor, patch};
    }
};

/// Makes the bytes of an archive one by one, in either byte order and in each form that archives ever had,
/// and says of each what it is. Knows nothing of the library.
class ArchiveBytes {
public:
    explicit ArchiveBytes(bool isLittleEndian = true) { m_head.isLittleEndian = isLittleEndian; }
    /// Begins with the header.
    explicit ArchiveBytes(const ArchiveHead& head) : m_head(head) { header(); }

    [[nodiscard]] const std::string& bytes() const { return m_bytes; }
    [[nodiscard]] std::size_t size() const { return m_bytes.size(); }
    /// The bytes in hexadecimal form, with what they are.
    [[nodiscard]] const std::string& listing() const { return m_listing; }

    /// Bytes as they are.
    ArchiveBytes& block(std::string_view bytes, const std::string& note = "block") {
        for (std::size_t i = 0; i < bytes.size() || i == 0; i += 16) {
            std::string line;
            for (const char byte : bytes.substr(i, 16)) {
                std::array<char, 4> digits{};
                std::snprintf(digits.data(), digits.size(), "%02X ", static_cast<unsigned char>(byte));
                line += digits.data();
            }
            line.resize(48, ' ');
            m_listing += line + "# " + (i == 0 ? note : "...") + '\n';
        }
        m_bytes += bytes;
        return *this;
    }
    /// A line of its own in the listing.
    ArchiveBytes& title(const std::string& text) {
        m_listing += "# " + text + '\n';
        return *this;
    }
    /// A number in the archive's byte order.
    template <typename T>
    ArchiveBytes& raw(T value, const std::string& note = "raw") {
        return block(ordered(value), note);
    }
    /// A number behind the count of its bytes.
    template <typename T>
    ArchiveBytes& scalar(T value, const std::string& note = "scalar") {
        return block(std::string(1, static_cast<char>(sizeof(T))) + ordered(value), note);
    }
    ArchiveBytes& text(std::string_view text, const std::string& note = "text") {
        return block(ordered(static_cast<zel::uint32>(text.size())) + std::string(text), note);
    }
    ArchiveBytes& uuid(const zel::Uuid& uuid, const std::string& note = "uuid") {
        return block({reinterpret_cast<const char*>(uuid.data()), 16}, note);
    }

    // Objects.

    ArchiveBytes& objectHeader(zel::int32 mode, zel::int32 tag = 1) {
        return scalar(tag, "object").scalar(mode, "mode");
    }
    /// Of a class that the archive names for the first time.
    ArchiveBytes& newClass(zel::uint32 id, std::string_view name) {
        return scalar(zel::int32{2}, "class")
            .scalar(zel::int32{4}, "new")
            .scalar(id, "its id")
            .text(name, "name");
    }
    ArchiveBytes& knownClass(zel::uint32 id) {
        return scalar(zel::int32{2}, "class").scalar(zel::int32{8}, "known").scalar(id, "its id");
    }
    ArchiveBytes& id(zel::uint32 id) { return scalar(id, "id of the object"); }
    ArchiveBytes& newObject(zel::uint32 objectId, zel::uint32 classId, std::string_view className) {
        return objectHeader(4).newClass(classId, className).id(objectId);
    }
    ArchiveBytes& newObject(zel::uint32 objectId, zel::uint32 classId) {
        return objectHeader(4).knownClass(classId).id(objectId);
    }
    ArchiveBytes& knownObject(zel::uint32 objectId, zel::uint32 classId) {
        return objectHeader(8).knownClass(classId).id(objectId);
    }
    ArchiveBytes& null() { return objectHeader(16).scalar(char{0}, "null"); }
    ArchiveBytes& byValue() { return objectHeader(4); }
    /// What stands ahead of what an object stores of its own.
    ArchiveBytes& base(const zel::Uuid& objectUuid, bool isEnabled = true) {
        if (m_head.serialization > 2)
            uuid(objectUuid);
        else
            scalar(zel::uint64{4711}, "uniqueID");
        return scalar(isEnabled, "serializationEnabled");
    }

    /// A vector of plain elements.
    /// @param components  of all elements, with the fourth of a Vec3
    /// @param size        of the vector
    template <typename T>
    ArchiveBytes& vector(const std::vector<T>& components, zel::size_t size, zel::uint32 elementType) {
        const zel::size_t perElement = size == 0 ? 1 : components.size() / size;
        vectorHeader(size, perElement * sizeof(T), sizeof(T), elementType);
        std::string data;
        for (const T component : components)
            data += ordered(component);
        return block(data, "elements");
    }
    ArchiveBytes&
    vectorHeader(zel::uint64 size, zel::uint64 elementSize, zel::uint32 numBytes, zel::uint32 type) {
        scalar(size, "size of the vector");
        if (m_head.serialization >= 26)
            scalar(elementSize, "bytes an element").scalar(numBytes, "bytes a component");
        if (m_head.serialization >= 28)
            scalar(type, "type of the elements");
        return *this;
    }

private:
    template <typename T>
    [[nodiscard]] std::string ordered(T value) const {
        std::string bytes(sizeof(T), '\0');
        const zel::uint64 number = toNumber(value);
        for (std::size_t i = 0; i < sizeof(T); ++i)
            bytes[m_head.isLittleEndian ? i : sizeof(T) - 1 - i] = static_cast<char>(number >> (8 * i));
        return bytes;
    }
    template <typename T>
    static zel::uint64 toNumber(T value) {
        if constexpr (std::is_same_v<T, double>)
            return std::bit_cast<zel::uint64>(value);
        else if constexpr (std::is_same_v<T, float>)
            return std::bit_cast<zel::uint32>(value);
        else
            return static_cast<zel::uint64>(value);
    }

    void header() {
        block(m_head.isLittleEndian ? std::string_view("\1", 1) : std::string_view("\0", 1),
              m_head.isLittleEndian ? "little-endian" : "big-endian");
        block("\x08\x08\x04\x08\x04", "sizes of long, pointer, int, double and float");
        raw(zel::uint32{0x0FADDED0}, "magic");
        text(m_head.appName, "appName");
        for (const zel::uint8 part : m_head.version)
            raw(part, "version");
        if (!m_head.isBelow(5, 8, 0)) {
            if (m_head.isBelow(17, 0, 0))
                raw(m_head.oldRevision, "revision");
            else
                text(m_head.revision, "revision");
        }
        if (!m_head.isBelow(38, 0, 0))
            serializationVersion();
        if (!m_head.isBelow(0, 4, 0))
            buildInfo();
        if (m_head.isBelow(38, 0, 0) && !m_head.isBelow(5, 7, 0))
            serializationVersion();
        // What an archive does not tell is 0.
        if (m_head.isBelow(5, 7, 0))
            m_head.serialization = 0;
        if (m_head.serialization > 80)
            text(m_head.date, "date");
        if (m_head.serialization >= 86) {
            scalar(zel::uint64{m_head.modifications.size()}, "number of modifications");
            for (const std::string& hash : m_head.modifications)
                text(hash, "modification");
        }
    }
    void serializationVersion() { raw(m_head.serialization, "serialization version"); }
    void buildInfo() {
        text(m_head.buildDate, "build date");
        text(m_head.buildTime, "build time");
        for (const ArchiveFlag& flag : m_head.flags)
            if (!flag.isOld || m_head.isBelow(38, 0, 0))
                scalar(flag.isSet, flag.name);
    }

    ArchiveHead m_head;
    std::string m_bytes;
    std::string m_listing;
};

} // namespace zelTest
