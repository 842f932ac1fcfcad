#!/usr/bin/env bash
# Builds the fuzz targets with clang, libFuzzer, ASan and UBSan in
# build-fuzz/ and runs each of them, one after the other, for SECONDS
# seconds (default 60):
#   scripts/fuzz.sh [SECONDS]
# A target passes when libFuzzer ends without a finding: no crash, no
# sanitizer report, no failed check, no input slower than 5 s, no more than
# 2 GiB of memory. Each target starts from its seeds (build-fuzz/corpus/
# <target>/, written by the build, where libFuzzer also keeps what it finds
# interesting) and its regression inputs (fuzz/regression/<target>/). A
# finding is written to build-fuzz/findings/<target>/ and its log to
# build-fuzz/findings/<target>.log. The last line is "N passed, M failed";
# the exit status is 1 when a target failed.
#
# To keep a finding as a regression input once it is fixed, minimise it and
# put it into the target's regression directory, which the tests replay:
#   build-fuzz/fuzz/<target> -minimize_crash=1 -runs=10000 \
#     -exact_artifact_path=fuzz/regression/<target>/<name> build-fuzz/findings/<target>/crash-...
set -uo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
if ! [[ "$seconds" =~ ^[0-9]+$ ]] || [ "$seconds" -lt 1 ]; then
  echo "usage: $0 [SECONDS]" >&2
  exit 2
fi

build=build-fuzz
mkdir -p "$build"
if ! { cmake -S . -B "$build" -G Ninja -DZV_BUILD_FUZZ=ON -DCMAKE_CXX_COMPILER=clang++ \
         -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZV_BUILD_TESTS=OFF -DZV_BUILD_BENCH=OFF \
         -DZV_BUILD_EXAMPLES=OFF -DZV_BUILD_TOOLS=ON -DZV_BUILD_PYTHON=OFF &&
       cmake --build "$build" -j2; } >"$build/fuzz_build.log" 2>&1; then
  tail -n 30 "$build/fuzz_build.log"
  echo "the fuzz build failed; see $build/fuzz_build.log"
  echo "0 passed, 1 failed"
  exit 1
fi

export ASAN_OPTIONS=abort_on_error=1:detect_leaks=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
# OpenMP workers that spin after each parallel region would take the cores
# the fuzzer runs on.
export KMP_BLOCKTIME=0
passed=0
failed=0
while read -r target max_len; do
  [ -n "$target" ] || continue
  corpus="$build/corpus/$target"
  findings="$build/findings/$target"
  log="$build/findings/$target.log"
  mkdir -p "$corpus" "$findings" "fuzz/regression/$target"
  "$build/fuzz/$target" -max_total_time="$seconds" -timeout=5 -rss_limit_mb=2048 \
      -max_len="$max_len" -close_fd_mask=1 -print_final_stats=1 \
      -artifact_prefix="$findings/" "$corpus" "fuzz/regression/$target" >"$log" 2>&1
  status=$?
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  if [ "$status" -eq 0 ]; then
    passed=$((passed + 1))
    echo "$target: passed, ${runs:-?} executions in ${seconds} s"
  else
    failed=$((failed + 1))
    echo "$target: FAILED (exit status $status, ${runs:-?} executions); see $log"
    grep -m 3 -E "ERROR: |runtime error: |check failed|Test unit written" "$log" | sed 's/^/  /'
  fi
done <"$build/fuzz/fuzz_targets.txt"

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
