#!/usr/bin/env bash
# Installs the build, moves what was installed, hides the sources and the build tree, and builds and runs the examples
# against it as a stranger would, without an environment variable: hello through find_package and through pkg-config,
# entities, which has classes and a model file of its own, plugin, whose kernel is a library, archive, whose archives name
# a class in a library, solar, and the model of the tutorial by the commands of its page. Then it moves the package once more under the programs' feet.
# usage: run.sh SOURCE_DIR BUILD_DIR COMPILER
set -euo pipefail

source=$1 build=$2 compiler=$3
if [ "${ZEL_PACKAGE_TEST:-}" = "" ]; then
    work=$(mktemp -d)
    trap 'rm -rf "$work"' EXIT
    cmake --install "$build" --prefix "$work/first" >"$work/log" || { cat "$work/log"; exit 1; }
    mv "$work/first" "$work/prefix"
    cp -r "$source/examples" "$work/examples"
    python3 "$source/tests/docs/extract.py" --files "$work/tutorial" "$source/docs/tutorial.md"
    cp "$0" "$work/run.sh"
    export ZEL_PACKAGE_TEST=$work
    unset ZEL_PLUGIN_PATH ZEL_FILE_PATH ZEL_COMPONENT_DEV_PATH
    # An empty folder is mounted over each of the two, for these processes alone.
    hide='mount -t tmpfs none "$2" && { [ ! -e "$1" ] || mount -t tmpfs none "$1"; } && cd / && exec bash "$ZEL_PACKAGE_TEST/run.sh" "$@"'
    if unshare -m true 2>/dev/null; then
        unshare -m bash -c "$hide" _ "$source" "$build" "$compiler"
    elif unshare -rm true 2>/dev/null; then
        unshare -rm bash -c "$hide" _ "$source" "$build" "$compiler"
    else
        echo "package: this user may not hide the build tree; what is installed is searched for its name all the same"
        bash "$work/run.sh" "$@"
    fi
    exit
fi

work=$ZEL_PACKAGE_TEST prefix=$work/prefix
cd "$work"
fail() {
    echo "package: $1" >&2
    exit 1
}

libdir=$(dirname "$(find "$prefix" -name 'libzelCore.so')")
[ "$(readlink "$libdir/libzelCore.so")" = libzelCore.so.2 ]
readelf -d "$libdir/libzelCore.so" | grep -q 'SONAME.*\[libzelCore.so.2\]'
if grep -rl -e "$source" -e "$build" -e "$work" "$prefix"; then
    fail "the installed files above name the folders that they were built from or first installed in"
fi
[ -f "$prefix/include/zel/ReferencedEntity.h" ]
[ -f "$prefix/share/zelCore/Components/zel/Referenced.zelEntity" ]
if find "$prefix/share" -name '*.h' -o -name '*.cpp' | grep .; then
    fail "sources lie among the installed model files"
fi
[ "$(readlink "$prefix/share/zelCore/Components/zel/libMath.Mul.so")" = libMath.so ]

build_example() {
    cmake -S "$work/examples/$1" -B "$work/build/$1" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
        -DCMAKE_CXX_COMPILER="$compiler" >"$work/log" || { cat "$work/log"; exit 1; }
    cmake --build "$work/build/$1" >"$work/log" || { cat "$work/log"; exit 1; }
}
run_hello() {
    local output
    output=$("$@")
    echo "$output"
    [ "$(tail -n 2 <<<"$output")" = '|-Root
| |-greeting' ] || fail "hello did not print the tree"
}

for example in hello entities plugin solar journal stream archive; do
    build_example $example
done
run_hello "$work/build/hello/hello"
"$work/build/entities/entities" | grep '49 apples are left'
# A value of its model follows a function of the library that lies among the installed model files.
"$work/build/plugin/plugin" | grep '1000 plants are 0.181 m high'
"$work/build/archive/archive" | grep '^Restored: 4 wheels of this rover, 2 motor(s)' -A 1 | grep 'spectrometer of 512 channels'
"$work/build/solar/solar" --days 2 --log "$work/solar.log" | grep 'drift' || fail "solar"

ln -s "$prefix" "$work/zel-installed"
(cd "$work/tutorial" && HOME=$work CXX=$compiler bash -e commands.sh) >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }
[ "$(tail -n 1 "$work/log")" = 'After 1 s: 995.046 m' ] || { cat "$work/log"; exit 1; }

export PKG_CONFIG_PATH="$libdir/pkgconfig"
[ "$(realpath "$(pkg-config --variable=datadir zelCore)")" = "$prefix/share/zelCore" ]
# shellcheck disable=SC2046
"$compiler" -std=c++20 "$work/examples/hello/main.cpp" $(pkg-config --cflags --libs zelCore) -Wl,-rpath,"$libdir" \
    -o "$work/by-pkg-config"
run_hello "$work/by-pkg-config"

# The tool, which finds the library beside it, on a journal that it has recorded.
zel=$prefix/bin/zel
"$zel" --help | grep -q '^  journal info FILE' || fail "zel --help"
"$zel" run "$work/examples/solar/Components/solar/Solar.zelComponent" --path "$work/build/solar" --frames 10 \
    --record "$work/solar.journal" | grep '^Recorded 11 frames' || fail "zel run"
"$zel" journal info "$work/solar.journal" | grep '^frames: 11, ' || fail "zel journal info"
grep -q '^.SS zel journal info' "$prefix/share/man/man1/zel.1" || fail "the manual page"
bash -n "$prefix/share/bash-completion/completions/zel"

# Moved once more: the library finds its model files from where it lies now.
mv "$prefix" "$work/elsewhere"
run_hello env LD_LIBRARY_PATH="$work/elsewhere/${libdir#"$prefix/"}" "$work/build/hello/hello"
LD_LIBRARY_PATH="$work/elsewhere/${libdir#"$prefix/"}" "$work/build/plugin/plugin" | grep '1000 plants are 0.181 m high'

# Without them the program says what it misses, and where it looked.
mv "$work/elsewhere/share" "$work/elsewhere/hidden"
if LD_LIBRARY_PATH="$work/elsewhere/${libdir#"$prefix/"}" ZEL_PLUGIN_PATH="$work/nowhere" \
    "$work/build/hello/hello" 2>"$work/errors"; then
    fail "the root was found although there is none"
fi
grep -q "Unable to load system root using path: 'Root.zelComponent'" "$work/errors"
grep -q "$work/nowhere (no such directory)" "$work/errors"
echo "package: all examples ran"
