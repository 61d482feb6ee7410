#pragma once

#include "ArchiveFixture.h"

#include <zelStream/XMLInputArchive.h>
#include <zelStream/XMLOutputArchive.h>

#include <concepts>
#include <cstring>
#include <limits>
#include <string>
#include <type_traits>

namespace zelTest {

/// Equality that tells -0 from 0 and denormals from zero, which threads of the system do not.
template <typename T>
bool isSame(const T& a, const T& b) {
    if constexpr (std::floating_point<T>)
        return std::memcmp(&a, &b, sizeof(T)) == 0;
    else
        return a == b;
}

/// The number below the smallest normal one, made without computing, which would give zero.
template <std::floating_point T>
T largestDenormal() {
    const T smallest = std::numeric_limits<T>::min();
    std::conditional_t<sizeof(T) == sizeof(zel::uint32), zel::uint32, zel::uint64> bits = 0;
    std::memcpy(&bits, &smallest, sizeof(T));
    --bits;
    T value{};
    std::memcpy(&value, &bits, sizeof(T));
    return value;
}

/// A document with a header, an element "Test" behind it, and what the test says.
inline std::string documentOf(const std::string& behindHeader) {
    return "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n"
           "<Archive><Version magic=\"263053008\" appName=\"hand\" generation=\"2\" major=\"38\" minor=\"0\" "
           "patch=\"0\" revision=\"r1\" serializationVersion=\"80\"><BuildInfo buildDate=\"d\" "
           "buildTime=\"t\" "
           "USE_SSE=\"true\" VIREO_USE_SSE3=\"false\" VIREO_USE_PADDING=\"true\" USE_OSG=\"false\" "
           "UNITTEST_ENABLED=\"false\" USE_PARTICLE_SYSTEM=\"false\" USE_OPENCL=\"false\"/></Version>" +
           behindHeader + "</Archive>";
}

/// An XML archive of the text, open.
class OpenedXml {
public:
    explicit OpenedXml(const std::string& text) : m_stream(text) { m_archive.open(m_stream); }
    zelStream::XMLInputArchive& operator*() { return m_archive; }
    zelStream::XMLInputArchive* operator->() { return &m_archive; }

private:
    std::istringstream m_stream;
    zelStream::XMLInputArchive m_archive;
};

class XMLArchiveFixture : public ArchiveFixture {
protected:
    /// A whole document.
    template <typename Work>
    static std::string xmlOf(Work work) {
        std::ostringstream stream;
        zelStream::XMLOutputArchive archive;
        archive.setUseCurrentDate(false);
        archive.open(stream, "test");
        work(archive);
        archive.close();
        return stream.str();
    }
    /// The text of the element "V" that the work writes.
    template <typename Work>
    static std::string elementOf(Work work) {
        const std::string text = xmlOf([&work](zelStream::XMLOutputArchive& archive) {
            const zelStream::Archive::ScopedSection section(archive, "V");
            work(archive);
        });
        const auto begin = text.find("<V", text.find("</Modifications>"));
        return text.substr(begin, text.find("\n</Archive>") - begin);
    }
    template <typename... T>
    static std::string textOf(const T&... values) {
        return elementOf([&](zelStream::XMLOutputArchive& archive) { (archive.write(values), ...); });
    }
    /// What a value, as token and as attribute, reads back as.
    template <typename T>
    static void expectReadsBack(const T& value) {
        const std::string text = xmlOf([&value](zelStream::XMLOutputArchive& archive) {
            archive.write(value);
            archive.addAttribute("a", value);
        });
        OpenedXml archive(text);
        T plain{};
        T attribute{};
        archive->read(plain);
        archive->getAttribute("a", attribute);
        EXPECT_TRUE(isSame(plain, value)) << text;
        EXPECT_TRUE(isSame(attribute, value)) << text;
    }
};

} // namespace zelTest
