#!/usr/bin/env bash
# Compares two builds of the map library side by side in fresh processes:
# the same startup_bench child runs with one library, then the other,
# interleaved, and the sorted wall and CPU seconds of each are printed.
#
#   bash bench/compare_libraries.sh A.so B.so [OP] [RUNS]
#
# A.so, B.so: copies of libzorvane_localization.so.0 from two builds (copy
# them out of build/ before rebuilding); with LIB=libgpu_aligner.so.0 in the
# environment, copies of the stand-in instead. OP: a startup_bench
# operation (default table); RUNS: runs of each (default 10). Uses the map
# and the startup_bench of build/ (bench/startup.sh makes both).
set -euo pipefail
cd "$(dirname "$0")/.."
if [ $# -lt 2 ]; then
  sed -n '2,12p' "$0" >&2
  exit 2
fi
op=${3:-table}
lib=${LIB:-libzorvane_localization.so.0}
runs=${4:-10}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/A" "$work/B"
cp "$1" "$work/A/$lib"
cp "$2" "$work/B/$lib"
for r in $(seq "$runs"); do
  for side in A B; do
    # startup_bench finds the library through its run path; the loader
    # takes LD_LIBRARY_PATH before a run path (RUNPATH).
    result=$(LD_LIBRARY_PATH="$work/$side" OMP_NUM_THREADS=2 build/bench/startup_bench \
               --map build/startup_map_5000.zvmap --child "$op" | tail -1)
    echo "$side $result" >> "$work/results"
  done
done
for side in A B; do
  echo "$side wall s: $(awk -v s="$side" '$1 == s {print $3}' "$work/results" | sort -n | tr '\n' ' ')"
  echo "$side CPU s:  $(awk -v s="$side" '$1 == s {print $5}' "$work/results" | sort -n | tr '\n' ' ')"
done
