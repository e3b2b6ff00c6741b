#!/usr/bin/env bash
# The whole-process tests, and one run that sends the logging signals while
# slow-start flows come and go, with the daemon under valgrind memcheck.
# Passes when every test passes, no run has an error or an unsuppressed
# leak, and each suppression takes no more than the leak it is there for.
# ZEBUSR_SIM_TIME_SCALE (default 20) slows the simulated clock to match.
set -uo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-deps.sh valgrind libc6-dbg || exit 1

echo "=== valgrind: configure and build"
if ! cmake --preset valgrind >/dev/null || ! cmake --build --preset valgrind >build/valgrind-build.log 2>&1; then
    tail -n 40 build/valgrind-build.log
    echo "valgrind: FAILED (build)"
    exit 1
fi

build=build/valgrind
signals_run=$build/signals-run
export ZEBUSR_SIM_TIME_SCALE=${ZEBUSR_SIM_TIME_SCALE:-20}
# Each run directory gets the daemon's valgrind.<pid>.log.
export ZEBUSR_DAEMON_WRAPPER="valgrind --tool=memcheck --leak-check=full --show-leak-kinds=all
    --errors-for-leak-kinds=definite,indirect,possible --error-exitcode=99 -s
    --suppressions=$PWD/reliability/valgrind.supp
    --log-file=%q{ZEBUSR_SIM_RUNDIR}/valgrind.%p.log"
rm -rf "$build/tests/e2e/runs" "$signals_run"
start=$SECONDS
status=0

echo "=== valgrind: whole-process tests (time scale $ZEBUSR_SIM_TIME_SCALE)"
ctest --test-dir "$build" -L '^e2e$' -j 2 --timeout 300 --output-on-failure \
    >"$build/ctest-summary.txt" 2>&1 || status=1
grep -vE '^ *([0-9]+/[0-9]+ Test +#[0-9]+: .* Passed|Start +[0-9]+:)' "$build/ctest-summary.txt"
tests=$(grep -oE 'out of [0-9]+' "$build/ctest-summary.txt" | grep -oE '[0-9]+' || echo 0)

echo "=== valgrind: signals and history run"
"$build/sim/zebusr-sim" -q --no-report -o "$signals_run" -f 0.05 --signal 5:USR1 --signal 6:USR1 \
    --signal 7:USR2 --signal 7.5:USR2 --signal 9:USR1 \
    reliability/scenarios/signals-and-history.json -- "$build/zebusrd" verbose \
    >"$build/signals-run.txt" 2>&1
if ! grep -q 'daemon exit status: 0' "$build/signals-run.txt" ||
    [ "$(grep -c 'CSV File opened' "$signals_run/data/vendor/zebusr/zebusr_log.txt")" -ne 3 ]; then
    cat "$build/signals-run.txt"
    echo "the signals run did not go as planned"
    status=1
fi

# check LOG HISTORY_BLOCKS: one line per run; the worker threads' blocks may
# number at most two, the orphaned history nodes exactly HISTORY_BLOCKS.
errors=0 runs=0 supp_bytes=0 supp_blocks=0
check() {
    local log=$1 history=$2 name
    name=$(basename "$(dirname "$log")")
    runs=$((runs + 1))
    if ! grep -q 'ERROR SUMMARY' "$log"; then
        echo "  $name: no summary (daemon killed?)"
        status=1
        return
    fi
    local e def ind pos reach supp tls hist
    e=$(grep -oE 'ERROR SUMMARY: [0-9]+' "$log" | tail -n 1 | grep -oE '[0-9]+$')
    kind() { grep -oE "$1: [0-9,]+ bytes" "$log" | tail -n 1 | grep -oE '[0-9,]+' | tr -d , || echo 0; }
    def=$(kind 'definitely lost') ind=$(kind 'indirectly lost') pos=$(kind 'possibly lost')
    reach=$(kind 'still reachable') supp=$(kind '  suppressed')
    # Blocks per entry (its bytes count an indirect block twice; the summary's do not).
    used() { grep -E "used_suppression: .* $1 .*suppressed:" "$log" |
        sed -E 's/.*bytes in ([0-9,]+) blocks.*/\1/' | tr -d , | awk '{n += $1} END {print n + 0}'; }
    tls=$(used worker-thread-tls-at-exit)
    hist=$(used flow-history-chain-orphaned-by-head-removal)
    errors=$((errors + e))
    supp_bytes=$((supp_bytes + supp)) supp_blocks=$((supp_blocks + tls + hist))
    local verdict=ok
    if [ "$e" -ne 0 ] || [ "$tls" -gt 2 ] || [ "$hist" -ne "$history" ]; then
        verdict=FAILED
        status=1
    fi
    echo "  $name: $verdict: $e errors; lost: definitely $def, indirectly $ind, possibly $pos bytes;" \
        "still reachable $reach bytes; suppressed $supp bytes: worker threads $tls blocks," \
        "flow history $hist blocks"
    [ "$verdict" = ok ] || sed -n '/HEAP SUMMARY/,$p' "$log"
}

echo "=== valgrind: per run"
for log in "$build"/tests/e2e/runs/*/valgrind.*.log; do
    [ -f "$log" ] && check "$log" 0
done
for log in "$signals_run"/valgrind.*.log; do
    [ -f "$log" ] && check "$log" 2
done
[ "$runs" -eq $((tests + 1)) ] || { echo "  expected $((tests + 1)) daemon runs, found $runs"; status=1; }

verdict=passed
[ $status -eq 0 ] || verdict=FAILED
echo "valgrind: $verdict: $tests e2e tests and 1 signals run, $runs daemon runs, $errors errors," \
    "suppressed leaks $supp_bytes bytes in $supp_blocks blocks, $((SECONDS - start)) s"
exit $status
