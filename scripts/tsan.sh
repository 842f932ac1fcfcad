#!/usr/bin/env bash
# Runs the map file tests (load, save, the hostile corpus) under
# ThreadSanitizer once: clang with LLVM's OpenMP runtime and its Archer tool,
# which tells ThreadSanitizer about OpenMP's own synchronisation, so that a
# report is a race in our code and not in an uninstrumented runtime.
#   scripts/tsan.sh [GTEST_FILTER]   (default: the map file tests)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
filter=${1:-'GridMapLossy*:Corpus/HostileMapFile*:HostileMapFile*:GridMapBase*:PreCalc*'}
archer=$(ls /usr/lib/llvm-*/lib/libarcher.so 2>/dev/null | sort -V | tail -n 1)
[ -n "$archer" ] || { echo "tsan.sh: libarcher.so (libomp-dev) not found"; exit 1; }
flags="-fsanitize=thread -g -O1"
cmake -S . -B build-tsan -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  "-DCMAKE_CXX_FLAGS=$flags" "-DCMAKE_EXE_LINKER_FLAGS=-fsanitize=thread" \
  "-DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=thread" \
  -DZV_BUILD_BENCH=OFF -DZV_BUILD_TOOLS=OFF -DZV_BUILD_EXAMPLES=OFF -DZV_BUILD_PYTHON=OFF >/dev/null
cmake --build build-tsan --target zorvane_tests
OMP_NUM_THREADS=4 OMP_TOOL_LIBRARIES="$archer" TSAN_OPTIONS="halt_on_error=1 ignore_noninstrumented_modules=1" \
  build-tsan/tests/zorvane_tests --gtest_filter="$filter"
