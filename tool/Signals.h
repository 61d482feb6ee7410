#pragma once

namespace tool {

/// From now on SIGINT and SIGTERM ask for an end. Once: a second one ends the process as it would without us.
void endOnSignals();

/// The signal that has asked for an end; 0 while there is none.
[[nodiscard]] int endSignal();

} // namespace tool
