#!/usr/bin/env bash
# Builds faitra and runs every test.
#
#   scripts/test.sh                     plain build (build/default)
#   scripts/test.sh --sanitize address  AddressSanitizer + UBSan (build/asan)
#   scripts/test.sh --sanitize thread   ThreadSanitizer (build/tsan)
#
# Installs missing Debian packages first (needs root or sudo).
set -euo pipefail
cd "$(dirname "$0")/.."

sanitize=""
while [ $# -gt 0 ]; do
  case "$1" in
    --sanitize) sanitize="$2"; shift 2 ;;
    -h|--help) sed -n '2,8p' "$0"; exit 0 ;;
    *) echo "unknown argument: $1" >&2; exit 2 ;;
  esac
done

case "$sanitize" in
  "") dir=build/default ;;
  address) dir=build/asan ;;
  thread) dir=build/tsan ;;
  *) echo "--sanitize takes 'address' or 'thread'" >&2; exit 2 ;;
esac

scripts/install-deps.sh
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFAITRA_SANITIZE="$sanitize" -DFAITRA_WERROR=ON
cmake --build "$dir" -j"$(nproc)"

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:strict_string_checks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/tests/tsan.supp"
ctest --test-dir "$dir" --output-on-failure -j"$(nproc)"
