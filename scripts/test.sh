#!/usr/bin/env bash
# Builds and runs every test twice: in the debug build and under ASan+UBSan.
# Exits non-zero when anything fails.
set -uo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup-deps.sh || exit 1

status=0
for preset in default asan; do
    echo "=== $preset: configure and build"
    if ! cmake --preset "$preset" >/dev/null || ! cmake --build --preset "$preset"; then
        echo "=== $preset: build FAILED"
        status=1
        continue
    fi
    echo "=== $preset: test"
    ctest --preset "$preset" >"build/$preset/ctest-summary.txt" 2>&1
    rc=$?
    # Passing tests are one line each; show everything else.
    grep -vE '^ *([0-9]+/[0-9]+ Test +#[0-9]+: .* Passed|Start +[0-9]+:)' "build/$preset/ctest-summary.txt"
    [ $rc -eq 0 ] || status=1
done

# Suites beyond the host build: each prints its own closing line and exits
# non-zero on a failure.
extras=()
for suite in scripts/test-suites/*.sh; do
    [ -f "$suite" ] || continue
    name=$(basename "$suite" .sh)
    echo "=== $name"
    if bash "$suite" >"build/$name-summary.txt" 2>&1; then
        extras+=("$name passed")
    else
        extras+=("$name FAILED")
        status=1
        cat "build/$name-summary.txt"
    fi
    tail -n 3 "build/$name-summary.txt"
done

echo "=== summary"
for preset in default asan; do
    printf '%-8s ' "$preset"
    grep -E 'tests passed|tests failed' "build/$preset/ctest-summary.txt" 2>/dev/null || echo "no result"
done
for line in "${extras[@]}"; do echo "$line"; done
exit $status
