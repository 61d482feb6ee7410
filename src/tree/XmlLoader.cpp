#include "TagHint.h"
#include "containers/NearName.h"

#include <zel/Exception.h>
#include <zel/HashTable.h>
#include <zel/Verify.h>
#include <zel/XmlLoader.h>

#include <tinyxml.h>

#include <charconv>
#include <limits>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace zel {

namespace {

/// Made on first use, so that registration works in any static constructor.
HashTable<String, XmlLoaderRegistrator::LoadFunction>& s_xmlLoaders() {
    static HashTable<String, XmlLoaderRegistrator::LoadFunction> table;
    return table;
}

/// Prints an element up to a limit: errors in documents of any size stay short.
class LimitedPrinter : public TiXmlPrinter {
public:
    static constexpr size_t Limit = 4096;

    bool VisitEnter(const TiXmlElement& element, const TiXmlAttribute* attribute) override {
        return !isFull() && TiXmlPrinter::VisitEnter(element, attribute);
    }
    bool VisitExit(const TiXmlElement& element) override {
        return !isFull() && TiXmlPrinter::VisitExit(element);
    }
    bool Visit(const TiXmlText& text) override { return !isFull() && TiXmlPrinter::Visit(text); }

    [[nodiscard]] std::string text() {
        std::string result(CStr(), Size());
        while (!result.empty() && result.back() == '\n')
            result.pop_back();
        if (result.size() > Limit) {
            result.resize(Limit);
            result += " ...";
        }
        return result;
    }

private:
    [[nodiscard]] bool isFull() { return Size() > Limit; }
};

} // namespace

XmlLoaderRegistrator::XmlLoaderRegistrator(const char* tag, LoadFunction loadFunction) {
    const String name(tag);
    zelVerifyN(
        !s_xmlLoaders().contains(name), "An xml loader for tag '%s' is already registered!", name.c_str());
    s_xmlLoaders().insert(name, std::move(loadFunction));
}

bool XmlLoaderRegistrator::hasLoadFunction(const String& tag) {
    return s_xmlLoaders().contains(tag);
}

const XmlLoaderRegistrator::LoadFunction& XmlLoaderRegistrator::getLoadFunction(const String& tag) {
    static const LoadFunction none;
    const auto position = s_xmlLoaders().find(tag);
    return position == s_xmlLoaders().end() ? none : position->value;
}

std::string hintOfTag(const String& tag) {
    NearName near(tag);
    near.consider("Object"); // which no function loads
    for (const auto& loader : s_xmlLoaders())
        near.consider(loader.key);
    return near.hint();
}

std::string
xmlErrorText(const char* file, unsigned line, const TiXmlElement* element, const std::string& message) {
    const std::string rule(78, '=');
    const TiXmlDocument* document = element->GetDocument();
    LimitedPrinter printer;
    element->Accept(&printer);
    return "[" + std::string(file) + ":" + std::to_string(line) + "] XML error: " + message +
           ". Error at row " + std::to_string(element->Row()) +
           "\nFile: " + (document == nullptr ? std::string() : document->ValueStr()) + "\n" + rule + "\n" +
           printer.text() + "\n" + rule;
}

namespace {

std::string_view attributeText(const TiXmlElement* element, const char* name) {
    const char* text = element->Attribute(name);
    if (text == nullptr)
        ZEL_XML_ERROR(element, String::format("Could not locate attribute '%s'", name));
    return text;
}

[[noreturn]] void throwUnparsed(const TiXmlElement* element, const char* name) {
    ZEL_XML_ERROR(element, String::format("Unable to parse attribute %s", name));
}

template <typename Number>
Number parseNumber(const TiXmlElement* element, const char* name) {
    const std::string_view text = attributeText(element, name);
    if constexpr (std::is_unsigned_v<Number>)
        if (text == "InvalidIndex")
            return std::numeric_limits<Number>::max();
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        throwUnparsed(element, name);
    return value;
}

} // namespace

template <>
bool parseAttribute<bool>(const TiXmlElement* element, const char* name) {
    const std::string_view text = attributeText(element, name);
    if (text == "true" || text == "1")
        return true;
    if (text != "false" && text != "0")
        throwUnparsed(element, name);
    return false;
}

template <>
Name parseAttribute<Name>(const TiXmlElement* element, const char* name) {
    return attributeText(element, name).data();
}

template <>
String parseAttribute<String>(const TiXmlElement* element, const char* name) {
    return std::string(attributeText(element, name));
}

template <>
uint32 parseAttribute<uint32>(const TiXmlElement* element, const char* name) {
    return parseNumber<uint32>(element, name);
}

template <>
uint64 parseAttribute<uint64>(const TiXmlElement* element, const char* name) {
    return parseNumber<uint64>(element, name);
}

template <>
double parseAttribute<double>(const TiXmlElement* element, const char* name) {
    return parseNumber<double>(element, name);
}

} // namespace zel
