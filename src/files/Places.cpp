// Compiled twice: for the library in the build tree, and for the one that is installed.
#include "Places.h"

namespace zelIO {

const char* const BuildRoot = ZEL_BUILD_ROOT;
const char* const InstalledData = ZEL_INSTALLED_DATA;

} // namespace zelIO
