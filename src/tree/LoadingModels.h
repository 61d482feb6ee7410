#pragma once

#include <zel/Model.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>

namespace zel {

/// Models that components are being filled from, one within the other. What is described in their files and
/// made only later, as the implementation of a task is, must not ask for one of them either.
using ModelStack = Vector<ref_ptr<const Model>>;

/// Those that this thread is filling components from just now.
[[nodiscard]] ModelStack getLoadingModels();

/// Goes on, for a while, within the models that were being filled at another time.
class LoadingModelsScope {
public:
    explicit LoadingModelsScope(const ModelStack& models);
    LoadingModelsScope(const LoadingModelsScope&) = delete;
    LoadingModelsScope& operator=(const LoadingModelsScope&) = delete;
    ~LoadingModelsScope();

private:
    Vector<const Model*> m_outer;
};

} // namespace zel
