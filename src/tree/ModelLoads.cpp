#include "ModelLoads.h"

#include "KnownAttributes.h"

#include <zel/Component.h>
#include <zel/Log.h>
#include <zel/Namespace.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>

#include <exception>
#include <mutex>

namespace zel {

namespace {

/// Something that a load has added: a model or a namespace, or a file that has been read.
struct Addition {
    ref_ptr<Component> component;
    String file;
};

thread_local Vector<Addition> t_additions;
constinit thread_local size_t t_depth = 0;

void takeOut(Component& component) {
    auto* space = dynamic_cast<Component*>(component.getContext());
    if (space == nullptr)
        return;
    if (auto* model = dynamic_cast<Model*>(&component))
        model->tagShutdown();
    else if (component.getNumObjects() != 0)
        return; // a namespace that others have begun to use
    space->removeObject(&component);
}

} // namespace

ModelLoads::ModelLoads() noexcept : m_begin(t_additions.size()) {
    ++t_depth;
}

ModelLoads::~ModelLoads() {
    if (!m_isKept)
        takeBack(m_begin);
    if (--t_depth == 0)
        t_additions.clear();
}

void ModelLoads::added(Component* component) {
    if (t_depth != 0)
        t_additions.push_back({component, {}});
}

void ModelLoads::read(const String& file) {
    if (t_depth != 0)
        t_additions.push_back({nullptr, file});
}

void ModelLoads::takeBack(size_t count) noexcept {
    const std::lock_guard lock(getTypeSystemMutex());
    const bool rebinds = Object::getEnableRebind();
    Object::setEnableRebind(false);
    while (t_additions.size() > count) {
        const Addition addition = t_additions.back();
        t_additions.pop_back();
        try {
            if (addition.component)
                takeOut(*addition.component);
        } catch (const std::exception& error) {
            ZEL_LOG_WARNING(error.what());
        }
        if (!addition.file.empty()) {
            forgetModelFile(addition.file);
            forgetSlips(addition.file);
        }
    }
    Object::setEnableRebind(rebinds);
}

} // namespace zel
