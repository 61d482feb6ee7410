// Reading elements from text: any text may be read by any type, never beyond its end; and what is then
// written is read back as the same text.
#include <zel/String.h>
#include <zelData/Format.h>
#include <zelData/Transform.h>
#include <zelData/Type.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

void require(bool condition) {
    if (!condition)
        std::abort();
}

/// Every format that has a way from its type's text, in a fixed order.
std::vector<const zelData::Format*> readableFormats() {
    std::vector<const zelData::Format*> formats;
    for (const char* name : {"Int:8bit",
                             "Int:16bit",
                             "Int:32bit",
                             "Int:64bit",
                             "UInt:8bit",
                             "UInt:16bit",
                             "UInt:32bit",
                             "UInt:64bit",
                             "Real:32bit",
                             "Real:64bit",
                             "Vec2:32bit",
                             "Vec3:64bit",
                             "Vec4:64bit",
                             "Vec2i:8bit",
                             "Vec3i:16bit",
                             "Vec4i:64bit",
                             "Vec2u:32bit",
                             "Vec3u:64bit",
                             "Vec4u:8bit",
                             "Quat:32bit",
                             "Matrix3x3:64bit",
                             "Matrix4x4:32bit",
                             "Matrix4x4:64bit",
                             "AffineMatrix4x4",
                             "SPDMatrix3x3",
                             "Bound1:32bit",
                             "Bound2:64bit",
                             "Bound3:64bit",
                             "Bound1i:32bit",
                             "Bound2i:64bit",
                             "Bound3i:32bit",
                             "Bound1u:64bit",
                             "Bound2u:32bit",
                             "Bound3u:64bit",
                             "Line:32bit",
                             "Line:64bit",
                             "Plane:64bit",
                             "IndexRange:32bit",
                             "IndexRange:64bit",
                             "Name",
                             "String",
                             "Pointer",
                             "Bool"})
        formats.push_back(zelData::getFormat(name));
    return formats;
}

/// One element of a format.
class Element {
public:
    explicit Element(const zelData::Format* format)
        : m_format(format), m_data(::operator new(format->getSize())) {
        m_format->constructElement(m_data);
    }
    Element(const Element&) = delete;
    Element& operator=(const Element&) = delete;
    ~Element() {
        m_format->destroyElement(m_data);
        ::operator delete(m_data);
    }
    void read(const zel::String& text) { zelData::transform(m_data, m_format, &text, ascii(), 1); }
    [[nodiscard]] zel::String write() const {
        zel::String text;
        zelData::transform(&text, ascii(), m_data, m_format, 1);
        return text;
    }

private:
    [[nodiscard]] const zelData::Format* ascii() const { return m_format->getType()->getFormat("ascii"); }

    const zelData::Format* m_format;
    void* m_data;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::vector<const zelData::Format*> formats = readableFormats();
    if (size == 0)
        return 0;
    const zelData::Format* format = formats[data[0] % formats.size()];
    zel::String text(reinterpret_cast<const char*>(data + 1), size - 1);
    // Any other word ends the process, as it should.
    if (format->getType()->getName() == zel::Name("Bool"))
        text = (text.size() & 1U) != 0 ? "true" : "false";
    text.shrink_to_fit();
    Element element(format);
    element.read(text);
    const zel::String once = element.write();
    element.read(once);
    const zel::String twice = element.write();
    // Numbers are rounded to the digits of the text, once: what is read from them writes the same.
    const zel::Name type = format->getType()->getName();
    if (type != zel::Name("Bound1i") && type != zel::Name("Bound2i") && type != zel::Name("Bound3i") &&
        type != zel::Name("Bound1u") && type != zel::Name("Bound2u") && type != zel::Name("Bound3u") &&
        type != zel::Name("SPDMatrix3x3"))
        require(once == twice);
    return 0;
}
