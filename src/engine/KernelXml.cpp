#include "PluginLibrary.h"
#include "containers/FlagScope.h"
#include "tree/SearchPlaces.h"

#include <zel/CpuDevice.h>
#include <zel/CpuKernel.h>
#include <zel/Exception.h>
#include <zel/Kernel.h>
#include <zel/Model.h>
#include <zel/Namespace.h>
#include <zel/TaskManager.h>
#include <zel/TreeGate.h>
#include <zel/Verify.h>
#include <zel/XmlLoader.h>
#include <zel/ref_ptr.h>

#include <tinyxml.h>

#include <mutex>
#include <stdexcept>

// Kernels in description files.

namespace zel {

namespace {

/// Makes models from the elements of the tag "Kernel": one for all that describe a kernel for several devices
/// or types.
class KernelType : public Model::Loader {
public:
    KernelType() : Loader("Kernel", "zelKernel") {
        addAlias("Kernel.Scalar");
        addAlias("SolveKernel");
    }

    Model* load(TiXmlElement* element, const Path& path) override {
        const char* name = element->Attribute("name");
        if (name == nullptr)
            ZEL_XML_ERROR(element, "Must specify a name for the kernel!");
        if (const Namespace* space = Model::getNamespace(path))
            if (space->findObject(name, Model::ClassModel()) != nullptr)
                return nullptr;
        return new Model(name, Kernel::ClassModel());
    }
};

KernelType s_kernelType;

const XmlLoaderRegistrator s_kernelLoader("Kernel", &Kernel::load);

/// For a message about a kernel: where its library was looked for, or what is wrong with the one that is
/// there.
std::string explainMissingLibrary(const Path& path, const String& failure) {
    if (failure.empty())
        return {};
    if (!findPluginLibrary(path).empty())
        return ": " + failure;
    return ": looked for '" + TaskManager::getPluginPath(path) + "'" + hintOfFile(path, {"so"}) +
           describeSearchPlaces();
}

/// The path under which the element's kernel is known.
Path pathOf(TiXmlElement* element) {
    return Model::getPath(element, parseAttribute<Name>(element, "name"));
}

} // namespace

Task* Kernel::load(TiXmlElement* element, Device* device) {
    if (element->Attribute("name") == nullptr)
        ZEL_XML_ERROR(element, "Must specify a name for the kernel!");
    const Path path = pathOf(element);
    if (const char* const name = element->Attribute("device")) {
        if (CpuDevice::instance()->getTypeName() != String(name))
            ZEL_XML_ERROR(
                element, String::format("When loading '%s': Unknown device type \"%s\"", path.c_str(), name));
        device = CpuDevice::instance();
    }
    const TreeChange change;
    const std::lock_guard lock(TaskManager::getMutex());
    // The kernel of a path without a library would be looked for in this very element.
    ref_ptr<Task> task;
    String failure;
    if (element->Attribute("dispatch") != nullptr || loadPlugin(path, failure) != nullptr)
        task = CpuKernel::load(element, device);
    if (!task)
        ZEL_XML_ERROR(
            element,
            String::format("Could not locate kernel binary (shared library) for kernel %s", path.c_str()) +
                explainMissingLibrary(path, failure));
    return task.release_nodelete();
}

Task* CpuKernel::load(TiXmlElement* element, Device* device) {
    static bool loading = false; // guarded by TaskManager's mutex
    const TreeChange change;
    const std::lock_guard lock(TaskManager::getMutex());
    const Path path = pathOf(element);
    zelVerifyN(!loading, "Load loop detected for kernel '%s'", path.c_str());
    const FlagScope scope(loading);
    const char* const dispatch = element->Attribute("dispatch");
    return Task::load(
        dispatch == nullptr ? path : Path(dispatch), parseAttribute<Name>(element, "name"), device);
}

} // namespace zel
