#pragma once

#include <exception>

namespace zel::detail {

/// Tells on std::cerr that a step of the teardown threw: the first one of a shutdown, the others follow from
/// it.
void reportShutdownFailure(const char* step, const char* what) noexcept;
/// A new shutdown begins: its first failure is told again.
void beginShutdown() noexcept;

/// Runs a step of the teardown. What it throws is told and ends that step alone: those behind it still want
/// to write what they hold, and zelCore::shutdown() has no way to return an error.
template <typename Step>
void attemptShutdown(const char* name, const Step& step) noexcept {
    try {
        step();
    } catch (const std::exception& error) {
        reportShutdownFailure(name, error.what());
    } catch (...) {
        reportShutdownFailure(name, "what was thrown is no std::exception");
    }
}

} // namespace zel::detail
