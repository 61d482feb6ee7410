#pragma once

namespace zel {

/// While it lives, changes of this thread pass the gate of the tree, see TreeGate.h, without waiting. For
/// those that load under the lock of the type system: they make models, which that lock guards, and what no
/// tree holds yet; and who looks at the tree may wait for that lock.
class GateExemption {
public:
    GateExemption() noexcept;
    GateExemption(const GateExemption&) = delete;
    GateExemption& operator=(const GateExemption&) = delete;
    ~GateExemption();
};

} // namespace zel
