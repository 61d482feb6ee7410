#pragma once

/// Marks what users of the shared library may call; everything else stays hidden.
#define ZEL_CORE_API __attribute__((visibility("default")))
