#pragma once

namespace zel {

class Device;
class Parameter;

/// Whether a parameter of a task on the device can be given what the other one has.
[[nodiscard]] bool takes(const Parameter& parameter, const Parameter& binding, const Device* device);

} // namespace zel
