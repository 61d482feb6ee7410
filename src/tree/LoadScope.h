#pragma once

namespace zel {

/// One level of loading on this thread. Nothing is rebound while a document is half loaded; the outermost
/// level switches rebinding on when it ends, also by an exception.
class LoadScope {
public:
    LoadScope() noexcept;
    LoadScope(const LoadScope&) = delete;
    LoadScope& operator=(const LoadScope&) = delete;
    ~LoadScope();
};

} // namespace zel
