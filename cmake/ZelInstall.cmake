# Install rules: headers, library, model files, the CMake package and the pkg-config file.
include(CMakePackageConfigHelpers)

set(ZEL_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/zelCore)
set(ZEL_INSTALL_DATADIR ${CMAKE_INSTALL_DATADIR}/zelCore)

install(TARGETS zelCorePackage EXPORT zelCoreTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h" PATTERN "*.inl")
# The sources of plug-ins stay at home, those of the entities' classes are used by programs.
install(DIRECTORY Components/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h"
        PATTERN "Math" EXCLUDE PATTERN "WebDebugger" EXCLUDE)
install(DIRECTORY Components/ DESTINATION ${ZEL_INSTALL_DATADIR}/Components
        PATTERN "*.h" EXCLUDE PATTERN "*.cpp" EXCLUDE PATTERN "Math" EXCLUDE PATTERN "tsconfig.json" EXCLUDE)
# A script that is older than its source would be taken for one that must be compiled again.
install(CODE "file(GLOB scripts \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${ZEL_INSTALL_DATADIR}/Components/WebDebugger/*.js\")
file(TOUCH \${scripts})")
# One file that needs no library: to be copied, or to stand in PYTHONPATH.
install(FILES ${PROJECT_SOURCE_DIR}/python/zeljournal.py ${PROJECT_SOURCE_DIR}/python/zelremote.py DESTINATION ${ZEL_INSTALL_DATADIR}/python)

install(EXPORT zelCoreTargets NAMESPACE zelCore:: DESTINATION ${ZEL_INSTALL_CMAKEDIR})

configure_package_config_file(cmake/zelCoreConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/zelCoreConfig.cmake
    INSTALL_DESTINATION ${ZEL_INSTALL_CMAKEDIR} PATH_VARS ZEL_INSTALL_DATADIR)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/zelCoreConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zelCoreConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/zelCoreConfigVersion.cmake
        DESTINATION ${ZEL_INSTALL_CMAKEDIR})

# The package may be moved as a whole: its prefix is counted from where the .pc file lies.
file(RELATIVE_PATH ZEL_PREFIX_FROM_PC ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/zelCore.pc.in ${CMAKE_CURRENT_BINARY_DIR}/zelCore.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zelCore.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
