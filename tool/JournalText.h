#pragma once

#include <zelData/PlainJournal.h>

#include <string>

namespace tool {

/// Prints what is wrong with the places of frames on the standard error stream.
/// @return Differs if there is anything, else Done
int tellFaults(const zelData::PlainJournal& journal);

/// "12,345 bytes", and in larger units.
[[nodiscard]] std::string sizeOf(unsigned long numBytes);

/// "1 frame", "2 frames".
[[nodiscard]] std::string counted(unsigned long number, const std::string& noun);

} // namespace tool
