#!/usr/bin/env bash
# Builds the test module and zebusrd, packs a busybox initramfs with both and
# the guest scenario, boots Debian's kernel under qemu (TCG, no KVM) and
# unpacks the guest's output files into OUT (default build/vm/out).
# Exits non-zero, with the guest console, when the guest fails to finish.
set -euo pipefail
cd "$(dirname "$0")/.."
out=${1:-build/vm/out}
work=build/vm
boot_timeout=${ZEBUSR_VM_TIMEOUT:-180}

# The newest installed Debian kernel that has its headers.
kernel="" kver=""
for k in $(ls /boot/vmlinuz-* 2>/dev/null | sort -V -r); do
    if [ -d "/usr/src/linux-headers-${k#/boot/vmlinuz-}" ]; then
        kernel=$k kver=${k#/boot/vmlinuz-}
        break
    fi
done
[ -n "$kernel" ] || { echo "no kernel image in /boot with headers in /usr/src"; exit 1; }
headers=/usr/src/linux-headers-$kver

echo "--- module for $kver"
rm -rf "$work/kmod" && mkdir -p "$work/kmod"
cp kmod/zebtest.c kmod/Kbuild "$work/kmod/"
nice -n 10 make -s -C "$headers" M="$PWD/$work/kmod" -j2 modules

echo "--- zebusrd"
nice -n 10 cmake --preset default -B "$work" -DZEBUSR_BUILD_TESTS=OFF -DZEBUSR_BUILD_BENCH=OFF \
    -DZEBUSR_BUILD_SIM=OFF >/dev/null
nice -n 10 cmake --build "$work" --target zebusrd -j2 >/dev/null

echo "--- initramfs"
root=$work/root
rm -rf "$root" && mkdir -p "$root"/{bin,proc,sys,dev,tmp,out,data/vendor/zebusr}
cp /bin/busybox "$root/bin/busybox"
cp "$work/zebusrd" "$work/kmod/zebtest.ko" vm/guest/* "$root/"
for lib in $(ldd "$work/zebusrd" | grep -o '/[^ ]*'); do
    mkdir -p "$root$(dirname "$lib")"
    cp -L "$lib" "$root$lib"
done
(cd "$root" && find . | cpio -o -H newc --quiet | gzip -1) >"$work/initramfs.gz"

echo "--- boot $kernel (TCG, at most ${boot_timeout}s)"
rm -rf "$out" && mkdir -p "$out"
start=$(date +%s)
rc=0
timeout -k 5 "$boot_timeout" nice -n 10 qemu-system-x86_64 -accel tcg -m 256 -smp 1 \
    -nographic -monitor none -no-reboot \
    -kernel "$kernel" -initrd "$work/initramfs.gz" \
    -append "console=ttyS0 panic=-1 loglevel=5" \
    -serial "file:$out/console.txt" -serial "file:$out/serial1.txt" </dev/null || rc=$?
echo "--- guest ran $(($(date +%s) - start))s (qemu status $rc)"

# Files come out between markers; the tty may have added carriage returns.
tr -d '\r' <"$out/serial1.txt" | awk -v dir="$out" '
    /^@@@ BEGIN / { f = dir "/" $3; printf "" > f; next }
    /^@@@ END /   { close(f); f = ""; next }
    f != ""       { print >> f }'
if [ "$rc" -ne 0 ] || ! grep -q '^@@@ DONE' "$out/serial1.txt"; then
    echo "--- the guest did not finish; its console:"
    tr -d '\r' <"$out/console.txt"
    [ -f "$out/scenario.txt" ] && { echo "--- scenario:"; cat "$out/scenario.txt"; }
    exit 1
fi
cat "$out/scenario.txt"
