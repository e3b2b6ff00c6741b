#!/usr/bin/env bash
# The log tool's benchmark: a release zebusr-log reads a verbose log of at
# least a gibibyte written from full tables (8 CPUs, 128 gold flows, 128
# slow-start flows). The log repeats real steady cycles of zebusrd under the
# simulator with advancing stamps; midnight passes once. For `check` and
# `explain` it reports the rate on one core (by wall time and by CPU time)
# and the peak resident memory, the median of the rounds by wall time. The
# log is read from the page cache, so the rate is the reader's, not the
# disk's. The log is removed afterwards.
#
#   scripts/bench-logtool.sh [--mib N] [--rounds N] [--json FILE]
#   TMPDIR=/big/disk scripts/bench-logtool.sh   # where the log is written (default build/)
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$root/build/release-bench
mib=1024 rounds=3 json=""
while [ $# -gt 0 ]; do
    case $1 in
        --mib) mib=$2; shift 2 ;;
        --rounds) rounds=$2; shift 2 ;;
        --json) json=$2; shift 2 ;;
        *) echo "usage: $0 [--mib N] [--rounds N] [--json FILE]" >&2; exit 2 ;;
    esac
done

"$root/scripts/setup-deps.sh"
if [ ! -f "$build/CMakeCache.txt" ]; then
    cmake --preset release -S "$root" -B "$build" -DZEBUSR_BUILD_TESTS=OFF >/dev/null
fi
nice cmake --build "$build" -j2 --target zebusr-log log_gen zebusr-sim zebusrd zebusr_preload \
    >/dev/null
gen=$build/bench/log_gen
tool=$build/logtool/zebusr-log

work=$(mktemp -d "${TMPDIR:-$build}/logbench.XXXXXX")
trap 'rm -rf "$work"' EXIT

# A few seconds of the daemon on full tables, verbose from the start: the
# cycles the big log is made of.
"$gen" scenario "$work/full-tables.json" 4
"$build/sim/zebusr-sim" "$work/full-tables.json" -q --no-report -o "$work/run" \
    -- "$build/zebusrd" verbose >"$work/sim.txt" 2>&1 || { cat "$work/sim.txt"; exit 1; }
log=$work/big.log
"$gen" log "$work/run/data/vendor/zebusr/zebusr_log.txt" "$log" "$mib"
bytes=$(stat -c %s "$log")
lines=$(wc -l <"$log")
cat "$log" >/dev/null  # into the page cache: every round reads it alike

cpu=$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//')
echo
echo "machine: $(nproc) cores, $cpu; log: $bytes bytes, $lines lines"
printf '%-8s %9s %8s %8s %11s %10s %9s %5s  %s\n' verb MB wall_s cpu_s "MB/s wall" \
    "MB/s cpu" "peak MB" exit "(targets: 200 MB/s, 64 MB)"
rows=()
for verb in check explain; do
    runs=()
    for ((r = 0; r < rounds; r++)); do
        runs+=("$("$gen" measure -- "$tool" "$verb" "$log")")
    done
    # The median round by wall time.
    read -r wall user sys rss rc < <(printf '%s\n' "${runs[@]}" | sort -n | sed -n "$(((rounds + 1) / 2))p")
    row=$(awk -v v="$verb" -v b="$bytes" -v w="$wall" -v u="$user" -v s="$sys" -v m="$rss" \
        -v rc="$rc" 'BEGIN {
            mb = b / 1e6; c = u + s; rw = mb / w; rc_ = mb / c; pm = m / 1024
            ok = (rc_ >= 200 && pm <= 64) ? "meets" : "misses"
            printf "%-8s %9.1f %8.2f %8.2f %11.1f %10.1f %9.1f %5d  %s\n", v, mb, w, c, rw, rc_, pm, rc, ok
            printf "JSON {\"verb\":\"%s\",\"bytes\":%d,\"wall_s\":%.3f,\"cpu_s\":%.3f,\"mb_per_s_wall\":%.1f,\"mb_per_s_cpu\":%.1f,\"peak_rss_mb\":%.1f,\"exit\":%d}\n", v, b, w, c, rw, rc_, pm, rc
        }')
    grep -v '^JSON ' <<<"$row"
    rows+=("$(grep '^JSON ' <<<"$row" | cut -c6-)")
done
if [ -n "$json" ]; then
    {
        printf '{"machine":"%s, %s cores","log_bytes":%s,"log_lines":%s,"rounds":%s,"verbs":[' \
            "$cpu" "$(nproc)" "$bytes" "$lines" "$rounds"
        (IFS=,; printf '%s' "${rows[*]}")
        printf ']}\n'
    } >"$json"
    echo "written $json"
fi
