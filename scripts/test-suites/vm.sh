#!/usr/bin/env bash
# zebusrd against a real kernel: one qemu boot (TCG) of Debian's kernel with
# the test module (kmod/) and the daemon (vm/run.sh), then the assertions on
# what the guest brought out (vm/check.sh). Installs its Debian packages.
set -uo pipefail
cd "$(dirname "$0")/../.."

bash scripts/setup-deps.sh linux-image-amd64 linux-headers-amd64 qemu-system-x86 busybox-static cpio ||
    exit 1
out=build/vm/out
if ! bash vm/run.sh "$out"; then
    echo "0 passed, 1 failed"
    exit 1
fi
exec bash vm/check.sh "$out"
