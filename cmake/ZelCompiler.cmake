# Compiler settings shared by all our targets, through the interface target zel::flags.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

if(NOT CMAKE_BUILD_TYPE)
    set(CMAKE_BUILD_TYPE Release CACHE STRING "Build type" FORCE)
endif()

find_program(ZEL_CCACHE ccache)
if(ZEL_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_CXX_COMPILER_LAUNCHER ${ZEL_CCACHE})
endif()

add_library(zelFlags INTERFACE)
add_library(zel::flags ALIAS zelFlags)
target_compile_options(zelFlags INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wdouble-promotion
    -Wold-style-cast -Wcast-align -Wcast-qual -Wnon-virtual-dtor -Woverloaded-virtual -Wformat=2
    -Wundef -Wmissing-declarations -Wextra-semi -Wvla
    -ffp-contract=off
    # Messages name files by their path below the project's root.
    -fmacro-prefix-map=${CMAKE_CURRENT_SOURCE_DIR}/=)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(zelFlags INTERFACE
        # Nobody replaces functions of the library by his own, so its calls of itself need no detour and may be inlined.
        -fno-semantic-interposition
        -Wduplicated-cond -Wduplicated-branches -Wlogical-op -Wsuggest-override
        # g++ 12 warns wrongly about std::string's operator+ (its bugs 105329 and 105651).
        -Wno-restrict -Wno-stringop-overflow)
else()
    target_compile_options(zelFlags INTERFACE
        -Wthread-safety -Wunreachable-code -Wdocumentation -Wcomma
        # Formats that come with a va_list were checked at the call, which g++ takes into account.
        -Wno-format-nonliteral)
endif()
if(ZEL_WERROR)
    target_compile_options(zelFlags INTERFACE -Werror)
endif()

find_program(ZEL_LLD ld.lld)
if(ZEL_LLD)
    add_link_options(-fuse-ld=lld)
endif()

if(ZEL_CHECK_LOCK_RANKS)
    add_compile_definitions(ZEL_CHECK_LOCK_RANKS)
endif()
if(ZEL_SANITIZE)
    add_compile_options(-fsanitize=${ZEL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all -g1)
    add_link_options(-fsanitize=${ZEL_SANITIZE})
endif()
