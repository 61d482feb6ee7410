#pragma once

namespace zel {

class Object;
class Parameter;

/// Throws, in the words of the failed verification, where Parameter::bind would end the process.
/// @throws std::runtime_error
void verifyBindable(const Parameter* parameter, Object* object);

} // namespace zel
