#!/usr/bin/env bash
# Soak: one simulated hour at 10 cycles a second with flow churn (new hashes
# every minute, three a minute sharing one history bucket), the optimised
# daemon under the simulator at time factor 0.05 (about 3 minutes real).
# Samples descriptors, resident memory and live heap all along; fails on a
# crash, an exit other than 0 on SIGTERM, a reconnection, a descriptor count
# that moves, or heap growth beyond the history nodes the design keeps.
#
#   bash reliability/soak.sh                 # the hour
#   bash reliability/soak.sh --minutes 5     # shorter
#   bash reliability/soak.sh --factor 0.1    # slower, for a loaded machine
#
# Output: build/soak/run-<N>min (the simulator's run directory),
# build/soak/samples-<N>min.csv, build/soak/result-<N>min.json.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$root/build/soak

"$root/scripts/setup-deps.sh"
command -v python3 >/dev/null || "$root/scripts/setup-deps.sh" python3
if [ ! -f "$build/CMakeCache.txt" ]; then
    echo "soak: configuring $build (optimised, no sanitizers)"
    cmake --preset release -S "$root" -B "$build" \
        -DZEBUSR_BUILD_TESTS=OFF -DZEBUSR_BUILD_BENCH=OFF -DZEBUSR_SANITIZE=OFF \
        -DZEBUSR_SANITIZE_THREAD=OFF >/dev/null
fi
echo "soak: building zebusrd, the simulator, the preload libraries and zebusr-log"
cmake --build "$build" -j2 --target zebusrd zebusr-sim zebusr_preload zebusr_count zebusr-log >/dev/null
exec python3 "$root/reliability/soak.py" --build "$build" "$@"
