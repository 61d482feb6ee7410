// Task, kernel and parameter XML through the road that a file takes, added to a tree and looked up in it.
// What has been loaded is then run, if nothing of it is missing.
#include "Support.h"

#include <zel/Component.h>
#include <zel/Notify.h>
#include <zel/UnresolvedTask.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/ValueT.h>

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
    const std::string text(reinterpret_cast<const char*>(data), size);
    // What is told to end the process: words that are no booleans, numbers without a type, loops and modes.
    for (const char* fatal :
         {"Bool", "mode", "depends", "dependency", "dispatch", "value", "Device", "enable"})
        if (text.find(fatal) != std::string::npos)
            return 0;

    const zelFuzz::InputFile file(data, size);
    try {
        const auto document = zel::Object::openDocument(file.path());
        for (TiXmlElement* element = document->FirstChildElement(); element != nullptr;
             element = element->NextSiblingElement()) {
            if (zelFuzz::namesContainer(element))
                continue;
            try {
                const zel::ref_ptr<zel::Component> top(new zel::Component("top"));
                top->addObject(new zelData::ValueT<double>("a", 1.5));
                const zel::ref_ptr<zel::Object> object(zel::Object::load(element, nullptr));
                top->addObject(object.get());
                if (auto* task = dynamic_cast<zel::UnresolvedTask*>(object.get()))
                    task->report();
            } catch (const std::runtime_error&) {
                // What a bad file gets.
            }
        }
    } catch (const std::runtime_error&) {
        // As above.
    }
    zel::UnresolvedTask::deleteAllConfiguredProxies();
    if (!zel::Object::getEnableRebind())
        std::abort();
    return 0;
}
