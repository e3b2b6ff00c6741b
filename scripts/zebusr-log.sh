#!/usr/bin/env bash
# Builds zebusr-log (and, for replay, zebusrd and the simulator) when missing
# or stale, then runs it:
#
#   scripts/zebusr-log.sh check LOG
#   scripts/zebusr-log.sh explain LOG [--csv CSV]
#   scripts/zebusr-log.sh trace LOG [--csv CSV] -o trace.json
#   scripts/zebusr-log.sh scenario LOG -o scenario.json
#   scripts/zebusr-log.sh replay LOG
#   scripts/zebusr-log.sh picture LOG -o report.png
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${ZEBUSR_LOG_BUILD:-$root/build/run-sim}

"$root/scripts/setup-deps.sh" >&2
if [ ! -f "$build/CMakeCache.txt" ]; then
    echo "configuring $build" >&2
    cmake --preset default -S "$root" -B "$build" \
        -DZEBUSR_BUILD_TESTS=OFF -DZEBUSR_BUILD_BENCH=OFF >/dev/null
elif ! cmake --build "$build" --target help 2>/dev/null | grep -q 'zebusr-log'; then
    # A build folder made before the tool existed: its makefiles know no such target.
    echo "configuring $build again" >&2
    cmake -S "$root" -B "$build" >/dev/null
fi
cmake --build "$build" -j2 --target zebusr-log zebusrd zebusr_preload >/dev/null
exec "$build/logtool/zebusr-log" "$@"
