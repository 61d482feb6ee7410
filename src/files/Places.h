#pragma once

namespace zelIO {

/// The source tree that the library was built in. Empty in the library that is installed, which must not read
/// from where it was built.
extern const char* const BuildRoot;

/// The folder above the installed "Components", counted from the folder of the library. Empty in the build
/// tree.
extern const char* const InstalledData;

} // namespace zelIO
