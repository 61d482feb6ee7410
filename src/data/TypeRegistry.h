#pragma once

#include <zelData/Type.h>

namespace zelData {

/// What the registry of types holds; guarded by the type-system mutex.
struct TypeRegistry {
    TypeTable types;
    zel::ref_ptr<Type> genericType; ///< "GenericData", the owner of the opaque formats
    zel::HashTable<zel::uint64, zel::ref_ptr<Format>> genericStructFormats; ///< by size

    /// Never destroyed: static objects may look types up while the process ends.
    [[nodiscard]] static TypeRegistry& instance();
    /// Forgets everything and begins a new generation. The types stay allocated.
    void clear();
};

} // namespace zelData
