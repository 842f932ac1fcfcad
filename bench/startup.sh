#!/usr/bin/env bash
# Start-up benchmark: builds startup_bench in build/ (configuring it when
# needed), generates the 10 M-cell synthetic map into build/ when missing,
# and prints the table of fresh-process timings. Extra arguments go to
# startup_bench (--runs N, --plain_runs M, --threads T, --only OPS,
# --settle S, --memory cold|warm|mixed, --warm_gib G, --cold_wait W).
#
#   bash bench/startup.sh                  # memory handed back to the host first
#   bash bench/startup.sh --memory warm    # memory just used, as on bare metal
set -euo pipefail
cd "$(dirname "$0")/.."
[ -f build/build.ninja ] || cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j2 --target startup_bench >/dev/null
echo "# $(date -u +%FT%TZ) $(uname -r); $(nproc) cores; $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2)"
echo "# THP enabled: $(cat /sys/kernel/mm/transparent_hugepage/enabled 2>/dev/null); defrag: $(cat /sys/kernel/mm/transparent_hugepage/defrag 2>/dev/null)"
reporting=/sys/module/page_reporting/parameters/page_reporting_order
echo "# free page reporting to a host: $([ -r $reporting ] && echo "blocks of order $(cat $reporting) and up" || echo none)"
echo "# load average before: $(cut -d' ' -f1-3 /proc/loadavg)"
build/bench/startup_bench --map build/startup_map_5000.zvmap "$@"
echo "# load average after: $(cut -d' ' -f1-3 /proc/loadavg)"
