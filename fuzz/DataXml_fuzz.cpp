// Model XML with values and buffers: loads, or is refused with a std::runtime_error.
#include "Support.h"

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

void walk(zel::Object* object) {
    if (auto* value = dynamic_cast<zelData::Value*>(object)) {
        static_cast<void>(value->toString());
    } else if (auto* buffer = dynamic_cast<zelData::Buffer*>(object)) {
        // Reads all elements. The capacity may well be below the size: it is a number that can be set.
        const zel::ref_ptr<zelData::Buffer> clone(buffer->clone());
        if (clone->size() != buffer->size())
            std::abort();
    }
}

/// Whether the element is one of the values that each buffer has; they have types.
bool isBuffersValue(const TiXmlElement* element) {
    const char* instance = element->Attribute("instance");
    if (instance == nullptr || element->Parent()->ValueStr() != "Buffer")
        return false;
    for (const char* name : {"numElements", "capacity", "elementArraySize", "defaultValue"})
        if (std::string(instance) == name)
            return true;
    return false;
}

/// Whether an element ends the process, as it should: an unknown container or device, a word that is no
/// boolean, a literal for a value without a type; or is of a tag that has a target of its own.
bool isFatal(const TiXmlElement* element) {
    for (; element != nullptr; element = element->NextSiblingElement()) {
        const std::string& tag = element->ValueStr();
        if (tag != "Value" && tag != "Buffer" && tag != "Component" && tag != "Object")
            return true;
        for (const TiXmlAttribute* attribute = element->FirstAttribute(); attribute != nullptr;
             attribute = attribute->Next())
            for (const char* word : {"<", "Bool", "Auto"})
                if (attribute->ValueStr().find(word) != std::string::npos)
                    return true;
        if (tag == "Value" && element->Attribute("value") != nullptr &&
            element->Attribute("type") == nullptr && !isBuffersValue(element))
            return true;
        if (isFatal(element->FirstChildElement()))
            return true;
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zelFuzz::initQuietly();
    // Sizes that fit in memory are none of the things to be found here.
    const std::string text(reinterpret_cast<const char*>(data), size);
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
        if (!isFatal(document->FirstChildElement())) {
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
