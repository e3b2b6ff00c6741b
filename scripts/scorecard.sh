#!/usr/bin/env bash
# Runs zebusrd as the system starts it (no argument: quiet logging) against a
# scenario (default: scenarios/default.json) and prints the scorecard: per CPU
# the time short of room or overloaded and the packets lost, per flow its
# moves, with the daemon and with the device left alone, and the difference.
# The run folder also holds report.png, the picture of the run.
#
#   scripts/scorecard.sh [SCENARIO.json]
#   ZEBUSR_SIM_FACTOR=1 scripts/scorecard.sh   # real time (default 0.25)
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
scenario=${1:-$root/scenarios/default.json}
factor=${ZEBUSR_SIM_FACTOR:-0.25}
build=$root/build/run-sim
out=${ZEBUSR_SIM_OUT:-$root/out/scorecard/$(basename "$scenario" .json)-$(date +%Y%m%d-%H%M%S)}

"$root/scripts/setup-deps.sh"
if [ ! -f "$build/CMakeCache.txt" ]; then
    cmake --preset default -S "$root" -B "$build" \
        -DZEBUSR_BUILD_TESTS=OFF -DZEBUSR_BUILD_BENCH=OFF >/dev/null
fi
cmake --build "$build" -j2 --target zebusrd zebusr-sim zebusr_preload >/dev/null
exec "$build/sim/zebusr-sim" "$scenario" --quiet --scorecard --time-factor "$factor" \
    --out "$out" -- "$build/zebusrd"
