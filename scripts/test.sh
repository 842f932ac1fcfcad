#!/usr/bin/env bash
# Installs what is missing, configures, builds and runs every test.
#   scripts/test.sh              normal build in build/
#   scripts/test.sh --sanitize   AddressSanitizer + UBSan build in build-sanitize/
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

build=build
extra=()
if [ "${1:-}" = "--sanitize" ]; then
  build=build-sanitize
  extra=(-DZV_SANITIZE=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZV_BUILD_BENCH=OFF)
fi

cmake -S . -B "$build" -G Ninja "${extra[@]}" >/dev/null
cmake --build "$build"
jobs=$(nproc)
ctest --test-dir "$build" --output-on-failure -j "$jobs"
