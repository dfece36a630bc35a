#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan+UBSan, build/fuzz) and runs each
# one for a bounded time, starting from the seeds in fuzz/corpus/<target>.
#
#   scripts/fuzz.sh [SECONDS]   seconds per target (default 30)
#
# New inputs the fuzzer keeps go to build/fuzz/corpus/<target>, crash inputs
# to build/fuzz/artifacts/<target>/. Prints executions and crashes per
# target; exits non-zero when any target crashed or could not run.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-30}"
case "$seconds" in
  ''|*[!0-9]*) echo "usage: $0 [SECONDS]" >&2; exit 2 ;;
esac

scripts/install-deps.sh
dir=build/fuzz
CC=clang CXX=clang++ cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DFAITRA_BUILD_FUZZ=ON -DFAITRA_BUILD_TESTS=OFF -DFAITRA_BUILD_APPS=OFF -DFAITRA_WERROR=ON >/dev/null
targets=(fs_entry_json_fuzz from_str_fuzz xattr_fuzz request_fuzz time_text_fuzz capture_reader_fuzz config_fuzz)
cmake --build "$dir" --target "${targets[@]}" -j"$(nproc)"

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
failed=0
summary=()
for target in "${targets[@]}"; do
  name="${target%_fuzz}"
  work="$dir/corpus/$name"
  artifacts="$dir/artifacts/$name"
  rm -rf "$artifacts"
  mkdir -p "$work" "$artifacts"
  log="$dir/$name.log"
  status=0
  "$dir/fuzz/$target" -max_total_time="$seconds" -timeout=10 -print_final_stats=1 \
    -artifact_prefix="$artifacts/" "$work" "fuzz/corpus/$name" >"$log" 2>&1 || status=$?
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  crashes=$(find "$artifacts" -type f | wc -l)
  summary+=("$(printf '%-16s executions %-10s crashes %s (exit %s)' "$name" "${executions:-?}" "$crashes" "$status")")
  if [ "$status" -ne 0 ] || [ "$crashes" -ne 0 ]; then
    failed=1
    echo "---- $target failed; last lines of $log ----" >&2
    tail -40 "$log" >&2
  fi
done
printf '%s\n' "${summary[@]}"
exit "$failed"
