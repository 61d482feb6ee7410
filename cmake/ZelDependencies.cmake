# Third-party libraries, all from the distribution's packages.
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(tinyxml REQUIRED IMPORTED_TARGET tinyxml)
pkg_check_modules(jsoncpp REQUIRED IMPORTED_TARGET jsoncpp)
pkg_check_modules(zlib REQUIRED IMPORTED_TARGET zlib)
pkg_check_modules(libwebsockets REQUIRED IMPORTED_TARGET libwebsockets)
pkg_check_modules(libtomcrypt REQUIRED IMPORTED_TARGET libtomcrypt)

# pystring ships neither a CMake package nor a .pc file.
find_library(ZEL_PYSTRING_LIBRARY pystring REQUIRED)
find_path(ZEL_PYSTRING_INCLUDE pystring/pystring.h REQUIRED)
add_library(zel::pystring UNKNOWN IMPORTED)
set_target_properties(zel::pystring PROPERTIES
    IMPORTED_LOCATION ${ZEL_PYSTRING_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${ZEL_PYSTRING_INCLUDE})

# civetweb's CMake package wants the package with its server program as well.
find_library(ZEL_CIVETWEB_LIBRARY civetweb REQUIRED)
find_library(ZEL_CIVETWEB_CPP_LIBRARY civetweb-cpp REQUIRED)
add_library(zel::civetweb INTERFACE IMPORTED)
target_link_libraries(zel::civetweb INTERFACE ${ZEL_CIVETWEB_CPP_LIBRARY} ${ZEL_CIVETWEB_LIBRARY})
