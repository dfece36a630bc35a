#!/usr/bin/env bash
# Installs a built faitra tree into a fresh prefix, then builds and runs a
# consumer against that prefix twice: through the CMake package and through
# pkg-config.
#
#   run.sh <faitra build dir> <C++ compiler>
set -euo pipefail

build_dir=$1
cxx=${2:-c++}
here=$(cd "$(dirname "$0")" && pwd)

work=$(mktemp -d "${TMPDIR:-/tmp}/faitra-consumer-XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

# Runs a command with its output kept in a log that is shown only on failure.
quietly() {
  local log=$work/$1.log
  shift
  if ! "$@" >"$log" 2>&1; then
    cat "$log" >&2
    echo "failed: $*" >&2
    exit 1
  fi
}

quietly install cmake --install "$build_dir" --prefix "$prefix"

generator=()
if command -v ninja >/dev/null; then generator=(-G Ninja); fi
quietly configure cmake -S "$here" -B "$work/cmake-build" "${generator[@]}" \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_PREFIX_PATH="$prefix"
quietly build cmake --build "$work/cmake-build"
"$work/cmake-build/faitra_consumer"

pc_dir=$(dirname "$(find "$prefix" -name faitra.pc -print -quit)")
flags=$(PKG_CONFIG_PATH="$pc_dir" pkg-config --cflags --libs faitra-host)
# shellcheck disable=SC2086  # the flags are meant to split
"$cxx" -Wall -Wextra -Werror "$here/main.cpp" -o "$work/pc-consumer" $flags
libdir=$(PKG_CONFIG_PATH="$pc_dir" pkg-config --variable=libdir faitra)
LD_LIBRARY_PATH="$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" "$work/pc-consumer"
echo "installed package usable through CMake and pkg-config"
