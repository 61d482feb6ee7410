// Model XML with values and buffers: loads, or is refused with a std::runtime_error.
#include <zel/Component.h>
#include <zel/Notify.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/Buffer.h>
#include <zelData/Value.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <tinyxml.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace {

/// What ends the process as it should: unknown containers and devices, words that are no booleans, and
/// literals for values without a type.
bool isFatal(const std::string& text) {
    for (const char* word : {"&lt;", "<Device", "Bool", "Auto", "fn="})
        if (text.find(word) != std::string::npos)
            return true;
    return false;
}

void walk(zel::Object* object) {
    if (auto* value = dynamic_cast<zelData::Value*>(object)) {
        static_cast<void>(value->toString());
    } else if (auto* buffer = dynamic_cast<zelData::Buffer*>(object)) {
        if (buffer->size() > buffer->capacity())
            std::abort();
        const zel::ref_ptr<zelData::Buffer> clone(buffer->clone());
        if (clone->size() != buffer->size())
            std::abort();
    }
}

/// Whether a value without a type is to take a literal.
bool hasUntypedLiteral(const TiXmlElement* element) {
    for (; element != nullptr; element = element->NextSiblingElement()) {
        if (element->ValueStr() == "Value" && element->Attribute("value") != nullptr &&
            (element->Attribute("type") == nullptr || element->Attribute("instance") != nullptr))
            return true;
        if (hasUntypedLiteral(element->FirstChildElement()))
            return true;
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool ready = [] {
        zelCore::init();
        zel::Notify::instance()->setNotifyLevel(zel::Notify::Error);
        zel::Notify::instance()->setThrowOnError(true);
        return true;
    }();
    static_cast<void>(ready);
    // Sizes that fit in memory are none of the things to be found here.
    const std::string text(reinterpret_cast<const char*>(data), size);
    if (isFatal(text))
        return 0;
    std::size_t digits = 0;
    for (const char c : text) {
        digits = c >= '0' && c <= '9' ? digits + 1 : 0;
        if (digits > 5 && digits < 16)
            return 0;
    }

    const int file = memfd_create("model", 0);
    if (file < 0 || write(file, data, size) != static_cast<ssize_t>(size))
        std::abort();
    try {
        const auto document = zel::Object::openDocument("/proc/self/fd/" + std::to_string(file));
        if (!hasUntypedLiteral(document->FirstChildElement())) {
            const zel::ref_ptr<zel::Component> top(new zel::Component("top"));
            if (TiXmlElement* root = document->RootElement()) {
                top->configure(root);
                top->traverse(zel::Callback1<zel::Object*>(&walk));
            }
        }
    } catch (const std::runtime_error&) {
        // What a bad file gets.
    }
    close(file);
    return 0;
}
