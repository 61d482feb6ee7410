#include "Root.h"

#include "SearchPlaces.h"
#include "XmlPlace.h"

#include <zel/Component.h>
#include <zel/InitCallback.h>
#include <zel/Log.h>
#include <zelIO/Environment.h>

#include <exception>

namespace zel {

namespace {

ref_ptr<Component>& systemRoot() {
    static ref_ptr<Component> component;
    return component;
}

ZEL_SHUTDOWN_CALLBACK {
    systemRoot() = nullptr;
}

} // namespace

const Component* findRoot() noexcept {
    return systemRoot().get();
}

Component* root() {
    if (systemRoot())
        return systemRoot().get();
    const String path = "Root.zelComponent";
    const String file = zelIO::Environment::instance()->findComponent(path);
    if (file.empty()) {
        ZEL_LOG_WARNING("'" << path << "' was looked for" << describeSearchPlaces());
        ZEL_LOG_ERROR("Unable to load system root using path: '" << path << "'");
        return nullptr;
    }
    try {
        systemRoot() = Component::loadFile(file, nullptr);
    } catch (const std::exception& error) {
        if (!tellsPlace(error))
            ZEL_LOG_WARNING(error.what());
    }
    if (!systemRoot())
        ZEL_LOG_ERROR("Error initializing system root from path: '" << file << "'");
    return systemRoot().get();
}

} // namespace zel
