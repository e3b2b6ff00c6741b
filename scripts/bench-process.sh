#!/usr/bin/env bash
# Whole-process benchmark: the real zebusrd (release build) against the
# simulator answering every sync at once, on full tables, beside the floor
# program that makes only the system calls a cycle needs. Prints per-cycle CPU
# time of the evaluation thread, the ratio to the floor (median of alternated
# rounds), cycles per second, heap allocations per steady cycle, log lines and
# bytes per cycle, quiet and verbose, and the resident memory.
#
#   scripts/bench-process.sh [--rounds N] [--round-s S] [--json FILE]
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$root/build/release-bench

"$root/scripts/setup-deps.sh"
if [ ! -f "$build/CMakeCache.txt" ]; then
    cmake --preset release -S "$root" -B "$build" -DZEBUSR_BUILD_TESTS=OFF >/dev/null
fi
cmake --build "$build" -j2 --target process_bench >/dev/null
exec "$build/bench/process_bench" "$@"
