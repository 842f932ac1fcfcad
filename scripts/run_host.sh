#!/usr/bin/env bash
# The main job: installs what is missing, configures and builds the host
# example together with its bundled map, then starts the map server on that
# map the way a host process does (build/examples/zv_host, no arguments).
# Exits non-zero when any step fails or the server does not start.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

cmake -S . -B build -G Ninja >/dev/null
cmake --build build --target zv_host
echo
./build/examples/zv_host
