#pragma once

#include <zel/Object.h>
#include <zel/Parameter.h>
#include <zel/Path.h>

namespace zel {

/// How a path leads through an object that points at another one: an empty path is the object itself, or the
/// one that it points at if only that is of the model; the rest is looked up from the latter.
/// @param own  what an object without pointing finds
inline Object* lookThrough(Object* self, Object* own, const Path& path, Model* model) {
    if (own != nullptr)
        return own;
    Object* const target = Parameter::followPointers(self);
    return target == nullptr ? nullptr : target->getResource(path, model);
}

} // namespace zel
