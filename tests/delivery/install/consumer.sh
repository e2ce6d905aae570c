#!/bin/bash
# Installs the tree, moves it, and builds and runs a program against it.
# Usage: consumer.sh WAY BUILD_DIRECTORY C_COMPILER
set -eu

way=$1
build=$2
compiler=$3
here=$(cd "$(dirname "$0")" && pwd)

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
DESTDIR=$scratch/staged cmake --install "$build" >/dev/null
# Away from where it was configured for: nothing in it may name that place.
prefix=$(dirname "$(find "$scratch/staged" -type d -name include)")
mv "$prefix" "$scratch/moved"
library=$(dirname "$(find "$scratch/moved" -name libvc.a)")
mkdir "$scratch/run"

with_cmake() {
    mkdir "$scratch/source"
    cp "$here/consumer.c" "$scratch/source/"
    cat >"$scratch/source/CMakeLists.txt" <<EOF
cmake_minimum_required(VERSION 3.25)
project(consumer LANGUAGES C)
find_package(ttyline 1 REQUIRED)
add_executable(consumer consumer.c)
target_link_libraries(consumer PRIVATE $1)
EOF
    cmake -S "$scratch/source" -B "$scratch/build" -G Ninja \
        -DCMAKE_C_COMPILER="$compiler" -DCMAKE_PREFIX_PATH="$scratch/moved"
    cmake --build "$scratch/build"
    mv "$scratch/build/consumer" "$scratch/consumer"
}

with_pkgconfig() {
    local flags
    read -ra flags <<<"$(PKG_CONFIG_PATH=$library/pkgconfig \
        pkg-config --cflags --libs "$@" libvc)"
    "$compiler" -o "$scratch/consumer" "$here/consumer.c" "${flags[@]}"
}

case "$way" in
cmake_shared) with_cmake ttyline::vc ;;
cmake_static) with_cmake ttyline::vc_static ;;
pkgconfig_shared) with_pkgconfig ;;
pkgconfig_static)
    # The linker takes an archive where no shared library is.
    find "$library" -name '*.so*' -delete
    with_pkgconfig --static
    ;;
esac
TMPDIR=$scratch/run LD_LIBRARY_PATH=$library timeout 10 "$scratch/consumer"
grep -q '^LOGNAME=alice' "$scratch/run/mng/tty/.tty_info_300"
grep -q 'vc: reg parameter error' "$scratch/run/mng/tty/.vc_dump.txt"
