// Model XML through the road that a file takes: openDocument, Object::load of each top-level element, and
// Component::configure.
#include "Support.h"

#include <zel/Component.h>
#include <zel/Notify.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <tinyxml.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zelFuzz::initQuietly();

    const zelFuzz::InputFile file(data, size);
    try {
        const auto document = zel::Object::openDocument(file.path());
        for (TiXmlElement* element = document->FirstChildElement(); element != nullptr;
             element = element->NextSiblingElement()) {
            try {
                const zel::ref_ptr<zel::Object> object(zel::Object::load(element, nullptr));
                const zel::ref_ptr<zel::Component> component(new zel::Component("top"));
                component->addObject(object.get());
                component->configure(element);
            } catch (const std::runtime_error&) {
                // What a bad file gets.
            }
        }
    } catch (const std::runtime_error&) {
        // As above.
    }
    if (!zel::Object::getEnableRebind())
        std::abort();
    return 0;
}
