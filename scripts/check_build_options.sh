#!/usr/bin/env bash
# Configures every combination of the ZV_BUILD_* options, so that no option
# depends on another being on; then builds and runs the tests with the tools
# and the examples off.
#   scripts/check_build_options.sh [BUILD_ROOT]   (default: build-options/)
set -euo pipefail
cd "$(dirname "$0")/.."
root=${1:-build-options}
options=(ZV_BUILD_TESTS ZV_BUILD_BENCH ZV_BUILD_TOOLS ZV_BUILD_EXAMPLES ZV_BUILD_FUZZ ZV_BUILD_PYTHON)
n=${#options[@]}
for ((mask = 0; mask < (1 << n); ++mask)); do
  args=()
  for ((k = 0; k < n; ++k)); do
    if (( mask & (1 << k) )); then args+=("-D${options[k]}=ON"); else args+=("-D${options[k]}=OFF"); fi
  done
  rm -rf "$root/configure"
  if ! cmake -S . -B "$root/configure" -G Ninja "${args[@]}" >"$root.log" 2>&1; then
    echo "configure failed: ${args[*]}"; cat "$root.log"; exit 1
  fi
done
echo "all $((1 << n)) option combinations configure"
cmake -S . -B "$root/tests-only" -G Ninja -DZV_BUILD_TOOLS=OFF -DZV_BUILD_EXAMPLES=OFF \
  -DZV_BUILD_BENCH=OFF -DZV_BUILD_PYTHON=OFF >/dev/null
cmake --build "$root/tests-only"
ctest --test-dir "$root/tests-only" --output-on-failure -j "$(nproc)"
