#pragma once

#include "Command.h"

#include <zel/Component.h>
#include <zel/ref_ptr.h>

#include <string>

namespace tool {

/// Lets models, plug-ins and data be looked for in the folders of the options --path, too.
/// @throws std::runtime_error if there is no such folder
void addFolders(const Arguments& arguments);

/// A model in the tree of the system, from which it is taken at the end.
class LoadedModel {
public:
    /// Loads the first argument, with the options --path and --set.
    /// @throws std::runtime_error
    explicit LoadedModel(const Arguments& arguments);
    LoadedModel(const LoadedModel&) = delete;
    LoadedModel& operator=(const LoadedModel&) = delete;
    ~LoadedModel();

    [[nodiscard]] zel::Component* get() const { return m_component.get(); }
    /// The object at the path below the model.
    /// @throws std::runtime_error if there is none
    [[nodiscard]] zel::Object* find(const std::string& path) const;

private:
    [[nodiscard]] std::string hintFor(const std::string& path) const;

    zel::ref_ptr<zel::Component> m_component;
};

} // namespace tool
