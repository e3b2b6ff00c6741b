#!/usr/bin/env bash
# Checks the Android files that nothing here can build: Android.bp is as
# bpfmt writes it and TEST_MAPPING is valid JSON. Exits non-zero on a failure.
set -uo pipefail
cd "$(dirname "$0")/../.."

bash scripts/setup-deps.sh blueprint-tools jq || exit 1

passed=0
failed=0
check() {
    local what=$1
    shift
    if "$@"; then
        passed=$((passed + 1))
    else
        echo "android: $what FAILED"
        failed=$((failed + 1))
    fi
}

# bpfmt -d exits 0 even when it differs: any output is a failure.
bpfmt_clean() {
    local out
    out=$(bpfmt -d "$1" 2>&1) && [ -z "$out" ] || {
        echo "$out"
        return 1
    }
}
check "bpfmt -d Android.bp" bpfmt_clean Android.bp

check "TEST_MAPPING as JSON" jq empty TEST_MAPPING

echo "android: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
