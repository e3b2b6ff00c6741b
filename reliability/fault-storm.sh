#!/usr/bin/env bash
# Fault storms: the real zebusrd, built with ASan and UBSan, runs under the
# device simulator through one storm per kind of fault, and every run is held
# to what the daemon must do (reliability/fault_storm.py says what each storm
# asserts). One line per storm, then the totals; non-zero exit on any failure.
#
#   bash reliability/fault-storm.sh            # the full storm, about 10-20 minutes
#   bash reliability/fault-storm.sh --quick    # a few minutes
#   bash reliability/fault-storm.sh --seed 7 --only b,h --keep
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
asan=$root/build/storm/asan   # the daemon, sanitized
sim=$root/build/storm/sim     # the simulator and its preload, optimised

quiet() {
    local out
    out=$("$@" 2>&1) || { echo "$out"; echo "fault-storm: failed: $*" >&2; exit 1; }
}

"$root/scripts/setup-deps.sh"
if [ ! -f "$asan/CMakeCache.txt" ]; then
    quiet cmake -S "$root" -B "$asan" -DCMAKE_BUILD_TYPE=Debug -DZEBUSR_SANITIZE=ON \
        -DZEBUSR_BUILD_TESTS=OFF -DZEBUSR_BUILD_BENCH=OFF -DZEBUSR_BUILD_SIM=OFF
fi
if [ ! -f "$sim/CMakeCache.txt" ]; then
    quiet cmake -S "$root" -B "$sim" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DZEBUSR_BUILD_TESTS=OFF -DZEBUSR_BUILD_BENCH=OFF
fi
echo "building zebusrd (ASan+UBSan) in $asan, the simulator and zebusr-log in $sim"
quiet cmake --build "$asan" -j2 --target zebusrd
quiet cmake --build "$sim" -j2 --target zebusr-sim zebusr_preload zebusr-log

exec python3 "$root/reliability/fault_storm.py" --daemon "$asan/zebusrd" \
    --sim "$sim/sim/zebusr-sim" --log-tool "$sim/logtool/zebusr-log" "$@"
