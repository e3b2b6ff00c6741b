#!/usr/bin/env bash
# Runs each libFuzzer harness for a number of executions (10 million unless
# -n says otherwise), one after another under nice, each from a working copy
# of its corpus so the committed seeds stay as they are. One line per
# harness: executions, seconds, executions per second, and what it found.
# Exits non-zero when any harness finds something (the input is kept in
# build/fuzz/work/).
#   reliability/fuzz.sh [-n RUNS] [HARNESS...]
set -uo pipefail
cd "$(dirname "$0")/.."

runs=10000000
if [ "${1:-}" = "-n" ]; then
    runs=$2
    shift 2
fi
harnesses=("$@")
[ ${#harnesses[@]} -gt 0 ] || harnesses=(netlink_recv int_reply family_id boost capacities gold_flows ss_flows logread)

bash scripts/setup-deps.sh clang libclang-rt-14-dev >/dev/null || exit 1
cmake --preset fuzz >/dev/null && cmake --build --preset fuzz >/dev/null || exit 1

status=0
for h in "${harnesses[@]}"; do
    work=build/fuzz/work/$h
    mkdir -p "$work"
    cp -n fuzz/corpus/"$h"/* "$work"/
    out=build/fuzz/work/$h.log
    nice -n 19 build/fuzz/fuzz/fuzz_"$h" -runs="$runs" -print_final_stats=1 \
        -artifact_prefix="build/fuzz/work/$h-" "$work" >"$out" 2>&1
    rc=$?
    done_line=$(grep -E '^Done [0-9]+ runs in [0-9]+ second' "$out" | tail -n 1)
    execs=$(awk '/stat::number_of_executed_units:/ {print $2}' "$out" | tail -n 1)
    secs=$(sed -E 's/^Done [0-9]+ runs in ([0-9]+) second.*/\1/' <<<"$done_line")
    if [ $rc -eq 0 ] && [ -n "$done_line" ]; then
        rate=$(( execs / (secs > 0 ? secs : 1) ))
        printf '%-13s %11s executions %6s s %8s/s  nothing found\n' "$h" "$execs" "$secs" "$rate"
    else
        status=1
        printf '%-13s FOUND something or failed (exit %d): see %s\n' "$h" "$rc" "$out"
    fi
done
exit $status
