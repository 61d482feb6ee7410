#pragma once

namespace zel {

class Component;

/// The system's root, if it has been loaded.
[[nodiscard]] const Component* findRoot() noexcept;

} // namespace zel
