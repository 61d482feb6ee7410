#pragma once

#include <zel/Integers.h>
#include <zelData/ValueT.h>

namespace zelData {

/// Lets the value of a size or a capacity show again what holds, after the change that it asked for has
/// failed in the first of its callbacks: nobody else has heard of it. One that is bound shows what it is
/// bound to.
inline void restoreContent(ValueT<zel::uint64>& value, zel::uint64 content) noexcept {
    if (value.getBinding() == nullptr && value.getData() != nullptr)
        *static_cast<zel::uint64*>(value.getData()) = content;
}

/// Sets the value; where that fails, it follows again what it followed. Where it is a callback that throws,
/// the change stays.
inline void setOrStay(ValueT<zel::uint64>& value, zel::uint64 content) {
    const zel::ref_ptr<Value> binding(value.getBinding());
    const zel::Path path = binding ? value.getBindPath() : zel::Path();
    try {
        value.set(content);
    } catch (...) {
        const auto* present = static_cast<const zel::uint64*>(value.getData());
        if (binding && present != nullptr && *present != content) {
            if (!path.empty())
                value.bind(path);
            value.bind(binding.get());
        }
        throw;
    }
}

} // namespace zelData
