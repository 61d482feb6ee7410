# Shared by the scripts beside it: sourced, not run.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
script/bootstrap

jobs="${ZEL_JOBS:-$(nproc)}"

# Configures and builds a preset: build_preset NAME [TARGET...]
build_preset() {
    local preset=$1
    shift
    [ -f "build/$preset/build.ninja" ] || cmake --preset "$preset" >"/tmp/zel-configure-$preset.$$.log" 2>&1 || {
        cat "/tmp/zel-configure-$preset.$$.log"
        return 1
    }
    rm -f "/tmp/zel-configure-$preset.$$.log"
    cmake --build --preset "$preset" -j "$jobs" ${1:+--target "$@"}
}
