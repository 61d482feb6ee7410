#include "Model.h"

#include <zel/Notify.h>
#include <zel/Path.h>
#include <zelData/Value.h>
#include <zelIO/Environment.h>
#include <zelIO/FilePathContainer.h>
#include <zelIO/FileSystem.h>

#include <iostream>
#include <stdexcept>

// What run and tree have in common, and zel tree.

namespace tool {

using zelIO::Environment;
using zelIO::FileSystem;

namespace {

void addFolder(const std::string& folder) {
    for (const auto type : {Environment::PluginPath, Environment::ResourcePath})
        Environment::instance()->getFilePath(type).pushbackPath(folder);
}

bool isFile(const std::string& model) {
    return model.find('/') != std::string::npos || FileSystem::exists(model);
}

} // namespace

void addFolders(const Arguments& arguments) {
    for (const std::string& folder : arguments.getAll("--path")) {
        if (!FileSystem::isDir(folder))
            throw std::runtime_error("there is no folder '" + folder + "'");
        addFolder(FileSystem::getAbsolutePath(folder));
    }
}

LoadedModel::LoadedModel(const Arguments& arguments) {
    zel::Notify::instance()->setNotifyLevel(zel::Notify::Warning); // models that are not right are told of
    addFolders(arguments);
    const std::string& model = arguments.positional()[0];
    if (isFile(model)) {
        if (!FileSystem::exists(model))
            throw std::runtime_error("there is no file '" + model + "'");
        const std::string path = FileSystem::getAbsolutePath(model);
        const auto components = path.rfind("/Components/");
        addFolder(components == std::string::npos ? FileSystem::getPath(path)
                                                  : zel::String(path.substr(0, components)));
        m_component = zel::Component::loadFile(path, nullptr);
    } else {
        m_component = zel::Component::load(zel::Path(model), nullptr);
    }
    if (!m_component)
        throw std::runtime_error(isFile(model) ? "no component of '" + model + "' is named like the file"
                                               : "there is no model '" + model + "'");
    zel::root()->addObject(m_component.get());
    m_component->rebind();
    for (const std::string& setting : arguments.getAll("--set")) {
        const auto equals = setting.find('=');
        if (equals == std::string::npos)
            throw UsageError("--set: '" + setting + "' is not of the form PATH=VALUE");
        const std::string path = setting.substr(0, equals);
        auto* value = dynamic_cast<zelData::Value*>(find(path));
        if (value == nullptr)
            throw std::runtime_error("'" + path + "' is no value of the model");
        const std::string expression = setting.substr(equals + 1);
        try {
            value->verifyLiteral(expression);
        } catch (const std::runtime_error& error) {
            throw std::runtime_error("--set " + path + ": " + error.what());
        }
        value->setExpression(expression);
    }
}

LoadedModel::~LoadedModel() {
    if (m_component)
        zel::root()->removeObject(m_component.get());
}

/// Elsewhere paths begin with the name of the model.
std::string LoadedModel::hintFor(const std::string& path) const {
    const std::string own = std::string(m_component->getName().c_str()) + ".";
    return path.starts_with(own) ? ": paths begin below it, as in '" + path.substr(own.size()) + "'" : "";
}

zel::Object* LoadedModel::find(const std::string& path) const {
    zel::Object* object = m_component.get();
    for (const zel::Name& name : zel::Path(path)) {
        const auto* component = dynamic_cast<const zel::Component*>(object);
        object = component == nullptr ? nullptr : component->findObject(name);
        if (object == nullptr)
            throw std::runtime_error("the model has nothing at '" + path + "'" + hintFor(path));
    }
    return object;
}

int printTree(const Arguments& arguments) {
    const LoadedModel model(arguments);
    const auto& words = arguments.positional();
    zel::Object* object = words.size() == 2 ? model.find(words[1]) : model.get();
    if (const auto* component = dynamic_cast<const zel::Component*>(object))
        component->printSubtree(std::cout, 0);
    else
        object->printSubtree();
    return Done;
}

} // namespace tool
