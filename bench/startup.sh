#!/usr/bin/env bash
# Start-up benchmark: builds startup_bench in build/ (configuring it when
# needed), generates the 10 M-cell synthetic map into build/ when missing,
# and prints the table of fresh-process timings. Extra arguments go to
# startup_bench (--runs N, --plain_runs M, --threads T, --only OPS,
# --settle S).
#
#   bash bench/startup.sh
set -euo pipefail
cd "$(dirname "$0")/.."
[ -f build/build.ninja ] || cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j2 --target startup_bench >/dev/null
echo "# $(date -u +%FT%TZ) $(uname -r); $(nproc) cores; $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2)"
echo "# THP enabled: $(cat /sys/kernel/mm/transparent_hugepage/enabled 2>/dev/null); defrag: $(cat /sys/kernel/mm/transparent_hugepage/defrag 2>/dev/null)"
echo "# load average before: $(cut -d' ' -f1-3 /proc/loadavg)"
build/bench/startup_bench --map build/startup_map_5000.zvmap "$@"
echo "# load average after: $(cut -d' ' -f1-3 /proc/loadavg)"
