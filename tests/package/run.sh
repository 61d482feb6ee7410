#!/usr/bin/env bash
# Builds and installs a copy of the sources, moves the copy away, and builds and runs the hello example against what
# was installed: once through find_package, once through pkg-config. Then the entities example, which has classes and a
# model file of its own, and the plugin example, whose kernel is a library.
# usage: run.sh SOURCE_DIR COMPILER
set -euo pipefail

source=$1 compiler=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

mkdir "$work/source"
cp -r "$source"/{CMakeLists.txt,cmake,include,src,Components} "$work/source"
cmake -S "$work/source" -B "$work/build" -G Ninja -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_CXX_FLAGS_RELEASE=-O0 -DZEL_BUILD_TESTS=OFF -DZEL_BUILD_EXAMPLES=OFF \
    -DCMAKE_INSTALL_PREFIX="$prefix" >"$work/log" || { cat "$work/log"; exit 1; }
cmake --build "$work/build" -j 2 >"$work/log" || { cat "$work/log"; exit 1; }
cmake --install "$work/build" >"$work/log"
mv "$work/source" "$work/gone"
rm -rf "$work/build"

libdir=$(dirname "$(find "$prefix" -name 'libzelCore.so')")
[ "$(readlink "$libdir/libzelCore.so")" = libzelCore.so.2 ]
readelf -d "$libdir/libzelCore.so" | grep -q 'SONAME.*\[libzelCore.so.2\]'
if grep -rIl -e "$work/source" -e "$work/build" -e "$source" "$prefix"; then
    echo "installed files name the folders that they were built from" >&2
    exit 1
fi

cp -r "$source/examples/hello" "$work/hello"
expected='|-Root
| |-greeting'
check() {
    local output
    output=$(ZEL_PLUGIN_PATH="$2" ZEL_FILE_PATH="$2" "$1")
    echo "$output"
    [ "$(tail -n 2 <<<"$output")" = "$expected" ]
}

cmake -S "$work/hello" -B "$work/by-cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$compiler" >"$work/log" || { cat "$work/log"; exit 1; }
cmake --build "$work/by-cmake" >"$work/log" || { cat "$work/log"; exit 1; }
check "$work/by-cmake/hello" "$prefix/share/zelCore"

# An entity with classes of its own, by the pattern of those that are installed.
[ -f "$prefix/include/zel/ReferencedEntity.h" ]
[ -f "$prefix/share/zelCore/Components/zel/Referenced.zelEntity" ]
if find "$prefix/share" -name '*.h' -o -name '*.cpp' | grep .; then
    echo "sources lie among the installed model files" >&2
    exit 1
fi
cp -r "$source/examples/entities" "$work/entities"
cmake -S "$work/entities" -B "$work/entities-build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$compiler" >"$work/log" || { cat "$work/log"; exit 1; }
cmake --build "$work/entities-build" >"$work/log" || { cat "$work/log"; exit 1; }
ZEL_PLUGIN_PATH="$prefix/share/zelCore" "$work/entities-build/entities" | grep '49 apples are left'

# A kernel in a plug-in of its own, and the library of functions that lies among the model files.
[ "$(readlink "$prefix/share/zelCore/Components/zel/libMath.Mul.so")" = libMath.so ]
cp -r "$source/examples/plugin" "$work/plugin"
cmake -S "$work/plugin" -B "$work/plugin-build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$compiler" >"$work/log" || { cat "$work/log"; exit 1; }
cmake --build "$work/plugin-build" >"$work/log" || { cat "$work/log"; exit 1; }
ZEL_PLUGIN_PATH="$prefix/share/zelCore" "$work/plugin-build/plugin" | grep '1000 plants are 0.181 m high'

# The model of the tutorial, by the commands of the page.
python3 "$source/tests/docs/extract.py" --files "$work/tutorial" "$source/docs/tutorial.md"
ln -s "$prefix" "$work/zel-installed"
(cd "$work/tutorial" && HOME=$work CXX=$compiler bash -e commands.sh) >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }
[ "$(tail -n 1 "$work/log")" = 'After 1 s: 995.046 m' ] || { cat "$work/log"; exit 1; }

export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
"$compiler" -std=c++20 "$work/hello/main.cpp" $(pkg-config --cflags --libs zelCore) -Wl,-rpath,"$libdir" \
    -o "$work/by-pkg-config"
check "$work/by-pkg-config" "$(pkg-config --variable=datadir zelCore)"

# Without the search path the program says what it misses.
if ZEL_PLUGIN_PATH='' ZEL_FILE_PATH='' "$work/by-cmake/hello" 2>"$work/errors"; then
    echo "the root was found although nothing tells where it is" >&2
    exit 1
fi
grep -q "Unable to load system root using path: 'Root.zelComponent'" "$work/errors"
echo "package: both consumers ran"
