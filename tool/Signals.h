#pragma once

namespace tool {

/// From now on SIGINT and SIGTERM ask for an end, so that files are closed. The second one is the first one
/// told again, as `timeout` does, which signals the process and then its group; the third one ends the
/// process as it would without us.
void endOnSignals();

/// The signal that has asked for an end; 0 while there is none.
[[nodiscard]] int endSignal();

} // namespace tool
