#!/usr/bin/env bash
# Installs the built library into a scratch prefix, then builds a consumer
# twice: with find_package(Tamlo) and with pkg-config.
set -euo pipefail
build_dir=$1
source_dir=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

cmake --install "$build_dir" --prefix "$scratch/prefix" >/dev/null
libdir=$(ls -d "$scratch"/prefix/lib*/ | head -n1)
test -f "$scratch/prefix/include/Tamlo/Tamlo.h"
soname=$(objdump -p "$libdir/libTamlo.so.0" | awk '/SONAME/ {print $2}')
[ "$soname" = libTamlo.so.0 ] || { echo "unexpected soname: $soname"; exit 1; }

cmake -S "$source_dir/consumer" -B "$scratch/cmake-build" -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
cmake --build "$scratch/cmake-build" >/dev/null
out=$(LD_LIBRARY_PATH="$libdir" "$scratch/cmake-build/consumer")
[ "$out" = 'Tamlo::RuntimeException("installed")' ] || { echo "find_package consumer printed: $out"; exit 1; }

export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
g++ -o "$scratch/pc-consumer" "$source_dir/consumer/main.cpp" $(pkg-config --cflags --libs tamlo)
out=$(LD_LIBRARY_PATH="$libdir" "$scratch/pc-consumer")
[ "$out" = 'Tamlo::RuntimeException("installed")' ] || { echo "pkg-config consumer printed: $out"; exit 1; }
echo "install check passed"
