#pragma once

#include "GateExemption.h"

#include <zel/Model.h>
#include <zel/String.h>

#include <cstddef>

namespace zel {

/// What the loading of model files adds to the model tree on this thread while this lives: it is taken back
/// at the end unless keep() was called, so that a load that fails leaves no trace and a mended file can be
/// loaded anew. Loads lie in each other, as sources are loaded for their own.
class ModelLoads {
public:
    ModelLoads() noexcept;
    ModelLoads(const ModelLoads&) = delete;
    ModelLoads& operator=(const ModelLoads&) = delete;
    ~ModelLoads();

    void keep() noexcept { m_isKept = true; }

    /// Told of each model and namespace that enters the tree, and of each file that is being read. Do nothing
    /// outside of a load.
    static void added(Component* component);
    static void read(const String& file);

private:
    static void takeBack(size_t count) noexcept;

    GateExemption m_exemption;
    size_t m_begin;
    bool m_isKept = false;
};

/// For a message about a model of a name that another one has in the namespace: with the place of that one.
[[nodiscard]] String describeDuplicate(const Model& other, const Path& space);

/// Forgets that the file has been read.
void forgetModelFile(const String& file);

} // namespace zel
