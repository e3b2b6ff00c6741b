#!/usr/bin/env bash
# Runs the real zebusrd against the simulated device of a scenario (default:
# scenarios/default.json): verbose logging, CSV capture switched on with
# SIGUSR1 at 1 s, SIGTERM at the end. Prints each decision as the simulated
# kernel answers it, then a summary, and names the folder holding the log,
# the CSV capture, the transcript, the scorecard and report.png, the picture
# of the run.
#
#   scripts/run-sim.sh [SCENARIO.json]
#   ZEBUSR_SIM_FACTOR=1 scripts/run-sim.sh   # real time (default 0.5: twice as fast)
#   ZEBUSR_SIM_OUT=dir scripts/run-sim.sh    # output folder
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
scenario=${1:-$root/scenarios/default.json}
factor=${ZEBUSR_SIM_FACTOR:-0.5}
build=$root/build/run-sim
out=${ZEBUSR_SIM_OUT:-$root/out/sim/$(basename "$scenario" .json)-$(date +%Y%m%d-%H%M%S)}

"$root/scripts/setup-deps.sh"
if [ ! -f "$build/CMakeCache.txt" ]; then
    echo "configuring $build"
    cmake --preset default -S "$root" -B "$build" \
        -DZEBUSR_BUILD_TESTS=OFF -DZEBUSR_BUILD_BENCH=OFF >/dev/null
fi
echo "building zebusrd and the simulator"
cmake --build "$build" -j2 --target zebusrd zebusr-sim zebusr_preload >/dev/null
echo
exec "$build/sim/zebusr-sim" "$scenario" --time-factor "$factor" --out "$out" \
    --signal 1:USR1 -- "$build/zebusrd" verbose
