#!/usr/bin/env bash
# Runs a scenario and checks the picture of the run: report.png is a PNG and
# its decision rows hold every suggestion, segmentation and boost request of
# the transcript, with at least one accepted decision of each kind named.
#   check-report.sh ZEBUSR-SIM ZEBUSRD SCENARIO KIND...
set -euo pipefail
sim=$1 daemon=$2 scenario=$3
shift 3
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
"$sim" "$scenario" -q -f 0.25 -o "$out" -- "$daemon" >"$out/sim.txt" 2>&1 || { cat "$out/sim.txt"; exit 1; }
fail() { echo "report check: $*"; cat "$out/sim.txt"; exit 1; }
grep -q "picture     $out/report.png" "$out/sim.txt" || fail "the run did not name its picture"
[ "$(head -c 8 "$out/report.png" | od -An -tx1 | tr -d ' \n')" = 89504e470d0a1a0a ] ||
    fail "report.png is not a PNG"
asked=$(grep -cE '"dir":"in","kind":"(suggestion|segmentation|boost)"' "$out/transcript.jsonl")
drawn=$(grep -cE '^[0-9.]+ [1-5] [01] "' "$out/report/decisions.dat")
[ "$asked" -eq "$drawn" ] || fail "$asked decisions in the transcript, $drawn in the picture"
for kind in "$@"; do
    grep -qE "^[0-9.]+ [1-5] 1 \"$kind " "$out/report/decisions.dat" ||
        fail "no accepted $kind decision in the picture"
done
echo "report.png holds all $drawn decisions"
