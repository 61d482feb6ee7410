#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>

#include <string>

namespace zel {

/// What the library knows of the machine.
/// @threads any thread
class ZEL_CORE_API SystemInformation {
public:
    /// System, processor and memory, one line each with a tab in front; gathered once, on first use.
    /// @cost the first call starts `lsb_release` and waits for it
    [[nodiscard]] static const std::string& getHardwareSpecification();

    /// The number of online processors when first asked for, at least 1.
    [[nodiscard]] static size_t getNumCpu();
};

} // namespace zel
