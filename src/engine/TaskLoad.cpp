#include <zel/Log.h>
#include <zel/Task.h>
#include <zel/TaskManager.h>

namespace zel {

Task* Task::load(const Path& path, const Name& name, Device* device) {
    Task* const task = TaskManager::instance()->create(path, device, name);
    if (task == nullptr)
        ZEL_LOG_WARNING("Unable to load task '" << name << "' for implementation '" << path << "'");
    return task;
}

Task* Task::load(const Path& path, Device* device) {
    return load(path, path.back(), device);
}

Task* Task::load(const char* path, Device* device) {
    return load(Path(path), device);
}

} // namespace zel
