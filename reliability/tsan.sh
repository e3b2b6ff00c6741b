#!/usr/bin/env bash
# The whole-process tests, and one run that sends the logging signals while
# flows move, with the daemon and the simulator under ThreadSanitizer (gcc).
# Passes when every test and run passes and no process wrote a report.
# ROUNDS=n runs it all n times (default 3): races show by chance.
set -uo pipefail
cd "$(dirname "$0")/.."
rounds=${ROUNDS:-3}
bash scripts/setup-deps.sh || exit 1

echo "=== tsan: configure and build"
if ! cmake --preset tsan >/dev/null || ! cmake --build --preset tsan >build/tsan-build.log 2>&1; then
    tail -n 40 build/tsan-build.log
    echo "TSan: FAILED (build)"
    exit 1
fi

# Each process writes its reports to reports/tsan.<pid>; the counts come from
# there. The test preset sets the same options.
reports=build/tsan/reports
signals_run=build/tsan/signals-run
rm -rf "$reports"
mkdir -p "$reports"
export TSAN_OPTIONS="suppressions=$PWD/reliability/tsan.supp halt_on_error=0 second_deadlock_stack=1
    history_size=4 log_path=$PWD/$reports/tsan"

failed=0 tests=0
start=$SECONDS
for round in $(seq 1 "$rounds"); do
    echo "=== tsan: round $round of $rounds"
    ctest --preset tsan >"build/tsan/ctest-round$round.txt" 2>&1
    rc=$?
    grep -vE '^ *([0-9]+/[0-9]+ Test +#[0-9]+: .* Passed|Start +[0-9]+:)' "build/tsan/ctest-round$round.txt"
    [ $rc -eq 0 ] || failed=$((failed + 1))
    tests=$(grep -oE 'out of [0-9]+' "build/tsan/ctest-round$round.txt" | grep -oE '[0-9]+' || echo 0)
    # The logging signals while flows move and slow-start flows come and go.
    rm -rf "$signals_run"
    build/tsan/sim/zebusr-sim -q --no-report -o "$signals_run" -f 0.2 --signal 5:USR1 \
        --signal 6:USR1 --signal 7:USR2 --signal 7.5:USR2 --signal 9:USR1 \
        reliability/scenarios/signals-and-history.json -- build/tsan/zebusrd verbose \
        >build/tsan/signals-run.txt 2>&1
    if ! grep -q 'daemon exit status: 0' build/tsan/signals-run.txt ||
        [ "$(grep -c 'CSV File opened' "$signals_run/data/vendor/zebusr/zebusr_log.txt")" -ne 3 ]; then
        cat build/tsan/signals-run.txt
        echo "the signals run did not go as planned"
        failed=$((failed + 1))
    fi
done

count=$(cat "$reports"/tsan.* 2>/dev/null | grep -c '^WARNING: ThreadSanitizer')
if [ "$count" -gt 0 ]; then
    echo "=== tsan: reports"
    for f in "$reports"/tsan.*; do
        echo "--- $f"
        cat "$f"
    done
fi
verdict=passed
[ "$failed" -eq 0 ] && [ "$count" -eq 0 ] || verdict=FAILED
echo "TSan: $verdict: $tests e2e tests and 1 signals run x $rounds rounds, $failed failures," \
    "$count TSan reports, $((SECONDS - start)) s"
[ "$verdict" = passed ]
