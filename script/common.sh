# Shared by the scripts beside it: sourced, not run.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
script/bootstrap

jobs="${ZEL_JOBS:-$(nproc)}"

# Configures a preset where that has not been done, with the option ZEL_CMAKE_OPTION beside: configure_preset NAME
configure_preset() {
    [ -f "build/$1/build.ninja" ] || cmake --preset "$1" ${ZEL_CMAKE_OPTION:+"$ZEL_CMAKE_OPTION"} >"/tmp/zel-configure-$1.$$.log" 2>&1 || {
        cat "/tmp/zel-configure-$1.$$.log"
        return 1
    }
    rm -f "/tmp/zel-configure-$1.$$.log"
}

# Configures and builds a preset: build_preset NAME [TARGET...]
build_preset() {
    local preset=$1
    shift
    configure_preset "$preset"
    cmake --build --preset "$preset" -j "$jobs" ${1:+--target "$@"}
}
