#pragma once

#include <zel/Device.h>
#include <zel/Export.h>
#include <zel/Name.h>
#include <zel/ParameterTable.h>
#include <zel/String.h>
#include <zel/Vector.h>

namespace zel {

class ParameterBinding;
class Task;
class TaskPluginImplementation;

/// What a library offers under one path: implementations of a task, of which the first that fits the caller's
/// parameters is made. A static object of the library; it enters itself in TaskManager::pluginTable() when
/// the library is loaded, and leaves when it is unloaded.
///
///     static zel::TaskPlugin s_plugin("Bodies.Kick", zel::Device::Type::Cpu);
///     static zel::TaskPluginImplementationT<Kick> s_kick(s_plugin, "Kick");
///
/// A second plug-in of one path is refused with a warning.
/// @threads under TaskManager's mutex
class ZEL_CORE_API TaskPlugin {
public:
    /// @param path  of the task, such as "Bodies.Kick"; copied
    TaskPlugin(const char* path, Device::Type deviceType);
    TaskPlugin(const TaskPlugin&) = delete;
    TaskPlugin& operator=(const TaskPlugin&) = delete;
    ~TaskPlugin();

    [[nodiscard]] const String& getPath() const noexcept { return m_path; }
    [[nodiscard]] Device::Type getDeviceType() const noexcept { return m_deviceType; }
    [[nodiscard]] size_t getNumImplementations() const noexcept { return m_implementations.size(); }
    [[nodiscard]] TaskPluginImplementation* getImplementation(size_t index) const {
        return m_implementations[index];
    }
    /// Makes the models of all implementations known.
    void registerModels();

    /// Makes the first implementation that fits the bindings by name. One that throws when it is made does
    /// not fit, and is told of in a warning.
    /// @param bindings  see Task::matchParameters
    /// @param name      of the task; empty for that of the implementation
    /// @param implementationName  the only implementation that is wanted; empty for any
    /// @return a new task without owner; null if none fits, or the device is of another type
    [[nodiscard]] Task* create(Device* device,
                               const ParameterTable& bindings,
                               const Name& name = Name(),
                               const Name& implementationName = Name());
    /// The same with bindings by position.
    [[nodiscard]] Task* create(Device* device, Vector<ParameterBinding>& bindings, const Name& name = Name());

private:
    friend class TaskPluginImplementation;

    String m_path;
    Device::Type m_deviceType;
    Vector<TaskPluginImplementation*> m_implementations; // each enters and leaves by itself
};

/// One implementation of a task in a plug-in. Registers itself with the plug-in.
class ZEL_CORE_API TaskPluginImplementation {
public:
    TaskPluginImplementation(TaskPlugin& plugin, const char* name);
    TaskPluginImplementation(const TaskPluginImplementation&) = delete;
    TaskPluginImplementation& operator=(const TaskPluginImplementation&) = delete;
    virtual ~TaskPluginImplementation();

    /// @return a new task without owner, with its parameters declared
    [[nodiscard]] virtual Task* create(const Name& name, Device* device) = 0;

    /// Makes a model known under the plug-in's path; does nothing if there is one.
    void registerModel();
    [[nodiscard]] const Name& getName() const noexcept { return m_name; }
    [[nodiscard]] TaskPlugin& getPlugin() const noexcept { return m_plugin; }

private:
    TaskPlugin& m_plugin;
    Name m_name;
};

/// An implementation by a class with a constructor (const Name&, Device*).
template <typename T>
class TaskPluginImplementationT final : public TaskPluginImplementation {
public:
    using TaskPluginImplementation::TaskPluginImplementation;
    [[nodiscard]] Task* create(const Name& name, Device* device) override { return new T(name, device); }
};

} // namespace zel
