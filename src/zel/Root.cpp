#include <zel/Component.h>
#include <zel/InitCallback.h>
#include <zel/Log.h>
#include <zelIO/Environment.h>

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

Component* root() {
    if (systemRoot())
        return systemRoot().get();
    const String path = "Root.zelComponent";
    const String file = zelIO::Environment::instance()->findComponent(path);
    if (file.empty()) {
        ZEL_LOG_ERROR("Unable to load system root using path: '" << path << "'");
        return nullptr;
    }
    systemRoot() = Component::loadFile(file, nullptr);
    if (!systemRoot())
        ZEL_LOG_ERROR("Error initializing system root from path: '" << file << "'");
    return systemRoot().get();
}

} // namespace zel
