#!/usr/bin/env bash
# Installs what the build needs on a Debian machine, and does nothing when
# everything is already there. Every command of the README goes through it.
set -euo pipefail

packages=(g++ cmake ninja-build pkg-config libyaml-cpp-dev libgtest-dev libgmock-dev libbenchmark-dev clang libomp-dev libclang-rt-14-dev libcli11-dev libpng-dev pybind11-dev python3-dev python3-numpy python3-pytest)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "setup: installing ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
