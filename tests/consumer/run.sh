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

# The installed command starts by itself: its libraries are found next to it
# (no ldconfig, no LD_LIBRARY_PATH), in this prefix and not elsewhere.
if [ -x "$prefix/bin/faitra" ]; then
  version=$(env -u LD_LIBRARY_PATH "$prefix/bin/faitra" --version)
  [ "$version" = "faitra $(sed -n 's/^Version: //p' "$build_dir/faitra.pc")" ] || { echo "--version: $version" >&2; exit 1; }
  libraries=$(env -u LD_LIBRARY_PATH ldd "$prefix/bin/faitra")
  for lib in libfaitra_host.so.0 libfaitra.so.0 libfaitra_runtime.so.0; do
    grep -q "$lib => $prefix/" <<<"$libraries" || { echo "$lib is not taken from $prefix" >&2; echo "$libraries" >&2; exit 1; }
  done
fi

generator=()
if command -v ninja >/dev/null; then generator=(-G Ninja); fi
quietly configure cmake -S "$here" -B "$work/cmake-build" "${generator[@]}" \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_PREFIX_PATH="$prefix"
quietly build cmake --build "$work/cmake-build"
"$work/cmake-build/faitra_consumer"

pc_dir=$(dirname "$(find "$prefix" -name faitra.pc -print -quit)")
grep -qx RapidJSON <<<"$(PKG_CONFIG_PATH="$pc_dir" pkg-config --print-requires faitra)" ||
  { echo "faitra.pc does not require RapidJSON" >&2; exit 1; }
flags=$(PKG_CONFIG_PATH="$pc_dir" pkg-config --cflags --libs faitra-host)
# shellcheck disable=SC2086  # the flags are meant to split
"$cxx" -Wall -Wextra -Werror "$here/main.cpp" -o "$work/pc-consumer" $flags
libdir=$(PKG_CONFIG_PATH="$pc_dir" pkg-config --variable=libdir faitra)
LD_LIBRARY_PATH="$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" "$work/pc-consumer"
echo "installed package usable through CMake and pkg-config"
