#!/usr/bin/env bash
# The picture of a real default-scenario run's log (kept in data/): a PNG of
# some size, every decision the log holds on its row with its time and name,
# each flow where the tables and the accepted moves leave it, each CPU's spare
# capacity from the first tables, the run's start on the time axis.
#
#   picture_check.sh ZEBUSR_LOG SOURCE_DIR WORK_DIR
set -euo pipefail

tool=$1 src=$2 work=$3
rm -rf "$work"
mkdir -p "$work"
gzip -dc "$src/tests/logtool/data/default_run_log.txt.gz" >"$work/default.log"
fail() { echo "picture check: $*"; exit 1; }

"$tool" picture "$work/default.log" -o "$work/default.png" --data "$work/data" >"$work/out.txt"
grep -q "run 1 of 1, 199 cycles with tables (199 points drawn), 7 decisions" "$work/out.txt" ||
    fail "unexpected summary: $(cat "$work/out.txt")"
[ "$(head -c 8 "$work/default.png" | od -An -tx1 | tr -d ' \n')" = 89504e470d0a1a0a ] ||
    fail "default.png is not a PNG"
[ "$(stat -c %s "$work/default.png")" -gt 40000 ] || fail "default.png is nearly empty"

d=$work/data/report
asked=$("$tool" explain "$work/default.log" | awk '$1 ~ /^(UP|DOWN|BAL|SEG|BOOST)$/ && NF == 4 {n += $2} END {print n}')
[ "$(grep -cE '^[0-9.]+ [1-5] [01] "' "$d/decisions.dat")" -eq "$asked" ] ||
    fail "explain counts $asked decisions, the picture another number"
diff -u - <(grep -E '^[0-9.]+ [1-5] [01] "' "$d/decisions.dat") <<'EOF' || fail "decision rows differ"
1.352 1 1 "UP cpu2->4"
1.753 4 1 "SEG off 0xf457"
2.509 5 1 "BOOST 4242 999"
3.457 2 1 "DOWN 0xb0b0 cpu5->1"
5.111 3 1 "BAL 0xd00d cpu6->5"
6.464 4 1 "SEG off 0x6006"
7.023 5 1 "BOOST 4242 999"
EOF
# Flows with decisions first; 0xb0b0 stays on silver cpu1 although no table lists it.
diff -u - <(head -1 "$d/flows.dat"; sed -n 2p "$d/flows.dat"; tail -1 "$d/flows.dat") <<'EOF' ||
# t cpu of each flow (NaN while inactive): 0xf457 0xb0b0 0xd00d 0x6006 0xc0c0 0xa11ce
0.049 NaN 5 NaN NaN 6 NaN
9.973 3 1 5 0 6 4
EOF
    fail "flow rows differ"
[ "$(sed -n 2p "$d/cpus.dat")" = "0.049 25000 30000 25000 25000 180000 140000 110000 180000" ] ||
    fail "first spare capacities differ: $(sed -n 2p "$d/cpus.dat")"
[ "$(grep -c . "$d/cpus.dat")" -eq 200 ] || fail "not one spare row per cycle with tables"
grep -q "set xlabel \"seconds since 09:41:08, the run's first line\"" "$d/report.gp" ||
    fail "the time axis does not name the run's start"

# A run the log does not hold, and words that are wrong.
if "$tool" picture "$work/default.log" -o "$work/two.png" --run 2 2>"$work/err.txt"; then
    fail "--run 2 of a one-run log drew"
fi
grep -q "holds 1 run(s), not 2" "$work/err.txt" || fail "--run 2: $(cat "$work/err.txt")"
if "$tool" picture "$work/default.log" 2>/dev/null; then fail "no -o: drew"; fi
echo "picture of the default run's log holds all $asked decisions"
