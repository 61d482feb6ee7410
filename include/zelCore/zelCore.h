#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>

/// The two entry points of the library and the tick from which its time stamps are counted.
namespace zelCore {

/// Starts the library: makes the caller the main thread, runs the init callbacks (newest first), takes the
/// start tick and creates the logger. A second call does nothing; there is no nesting count.
/// @threads owner thread: the one that owns the library; nothing guards init and shutdown against each other
ZEL_CORE_API void init();

/// Stops the worker threads, runs the shutdown callbacks (newest first), destroys the singletons and drops
/// the plug-in libraries. Does nothing unless the library is initialised. `init` may follow again.
/// @threads owner thread, as init
ZEL_CORE_API void shutdown();

/// Whether the library is not initialised: true before the first `init` and after `shutdown`.
/// @threads any thread
[[nodiscard]] ZEL_CORE_API bool isShutdown();

} // namespace zelCore

namespace zel {

/// The value of the processor's time-stamp counter at the last `init` or `resetStartTick`.
/// @threads any thread
[[nodiscard]] ZEL_CORE_API uint64 getStartTick();

/// Takes the counter's present value as start tick.
/// @return its low 32 bits
/// @threads owner thread
ZEL_CORE_API uint32 resetStartTick();

} // namespace zel
