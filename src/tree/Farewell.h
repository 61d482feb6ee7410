#pragma once

#include <zel/Log.h>
#include <zel/Object.h>

#include <exception>

namespace zel {

/// Runs a step of an object's destructor that calls what belongs to others. What they throw, be it for a bad
/// model or since a callback fails, is no reason to end the process: the object goes all the same.
template <typename Step>
void runWhileDestroyed(const Object& object, const Step& step) {
    try {
        step();
    } catch (const std::exception& error) {
        ZEL_LOG_WARNING("While '" << object.getName() << "' was destroyed: " << error.what());
    }
}

} // namespace zel
