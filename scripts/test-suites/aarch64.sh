#!/usr/bin/env bash
# Cross-builds the daemon and the unit tests for 64-bit Arm with Debian's
# g++-aarch64-linux-gnu and runs the tests under qemu-user. Exits non-zero on
# any failure; the last line is the plain pass/fail count.
set -uo pipefail
cd "$(dirname "$0")/../.."

bash scripts/setup-deps.sh g++-aarch64-linux-gnu binutils-aarch64-linux-gnu qemu-user-static googletest ||
    exit 1

start=$SECONDS
build=build/aarch64
if ! cmake --preset aarch64 >/dev/null || ! nice -n 10 cmake --build --preset aarch64; then
    echo "aarch64: build FAILED"
    exit 1
fi

# The daemon and every test binary must really be Arm code, or qemu proves nothing.
for bin in "$build/zebusrd" "$build"/tests/*_test; do
    if ! aarch64-linux-gnu-readelf -h "$bin" | grep -q 'Machine: *AArch64'; then
        echo "aarch64: $bin is not an AArch64 binary"
        exit 1
    fi
done

ctest --preset aarch64 >"$build/ctest-summary.txt" 2>&1
rc=$?
grep -vE '^ *([0-9]+/[0-9]+ Test +#[0-9]+: .* Passed|Start +[0-9]+:)' "$build/ctest-summary.txt"

line=$(grep -E 'tests passed, [0-9]+ tests failed out of [0-9]+' "$build/ctest-summary.txt")
failed=$(sed -E 's/.*passed, ([0-9]+) tests failed out of ([0-9]+).*/\1/' <<<"$line")
total=$(sed -E 's/.*failed out of ([0-9]+).*/\1/' <<<"$line")
echo "aarch64: unit tests under $(basename "$(command -v qemu-aarch64-static || command -v qemu-aarch64)"), $((SECONDS - start)) s"
if [ -z "$total" ]; then
    echo "aarch64: no test result"
    exit 1
fi
echo "aarch64: $((total - failed)) passed, $failed failed"
exit $rc
