#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the simulator need,
# only those that are missing. Safe to run again. Extra package names given
# as arguments are installed the same way (the aarch64 and VM suites use it).
set -euo pipefail

packages=(g++ cmake make libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev gnuplot-nox "$@")

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
