// Model XML through the road that a file takes: openDocument, Object::load of each top-level element, and
// Component::configure.
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
    static const bool ready = [] {
        zelCore::init();
        zel::Notify::instance()->setNotifyLevel(zel::Notify::Error);
        zel::Notify::instance()->setThrowOnError(true);
        return true;
    }();
    static_cast<void>(ready);

    const int file = memfd_create("model", 0);
    if (file < 0 || write(file, data, size) != static_cast<ssize_t>(size))
        std::abort();
    const std::string path = "/proc/self/fd/" + std::to_string(file);
    try {
        const auto document = zel::Object::openDocument(path);
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
    close(file);
    if (!zel::Object::getEnableRebind())
        std::abort();
    return 0;
}
