#!/usr/bin/env bash
# Asserts on what one VM run brought out (vm/run.sh OUT): each case extracts a
# normalised view of the daemon's log, CSV capture or the module's transcript
# and compares it whole with vm/expected/CASE.txt. Prints one line per case
# and "N passed, M failed"; exits non-zero on a failure.
#   vm/check.sh OUT            check
#   vm/check.sh OUT --show     print the views instead
set -uo pipefail
out=${1:?usage: check.sh OUT [--show]}
here=$(cd "$(dirname "$0")" && pwd)

ids() { sed -n 's/^load zeb=\([0-9]*\) core=\([0-9]*\)$/\1 \2/p' "$out/$1"; }
read -r zeb1 core1 < <(ids transcript-1.txt)
read -r zeb2 core2 < <(ids transcript-2.txt)
daemon=$(sed -n 's/^daemon pid //p' "$out/scenario.txt")

# Log lines as "function (LEVEL): text": no time stamp, no source line, no
# blank lines; descriptors and sequence numbers vary from run to run. The
# lines are zebusr-log's reading of the log (scripts/zebusr-log.sh lines).
# The daemon writes a line as prefix, text and newline without a lock, so two
# threads' lines can interleave: a prefix followed by another thread's whole
# line is read as a line that does not match; its text, given to the reader
# again, is that other line, and the text that lost its prefix (on a line of
# its own) goes back to the last prefix still without one.
tsv() {
    local tool=$here/../scripts/zebusr-log.sh
    if [ ! -f "$out/.lines.tsv" ]; then
        "$tool" lines "$out/zebusr_log.txt" >"$out/.lines.tsv"
        # The text of each unmatched line with a prefix, on odd lines.
        awk -F'\t' '$5 == "?" && $2 != "-" { for (k = 0; k < 6; k++) sub(/^[^\t]*\t/, ""); print; print "" }' \
            "$out/.lines.tsv" | "$tool" lines - >"$out/.inner.tsv"
    fi
}

raw() {
    tsv
    awk -F'\t' '
        function rest(line, k) { while (k-- > 0) sub(/^[^\t]*\t/, "", line); return line }
        function put(t, f, l, m) { text[++n] = t " " f " (" l "): " m; if (m == "") bare[++b] = n }
        FILENAME == ARGV[1] { if ($2 != "-" && $5 != "?") inner[($1 + 1) / 2] = $0; next }
        $5 != "?" { put($2, $3, $4, rest($0, 5)); next }
        $2 != "-" && (++k in inner) {
            put($2, $3, $4, "")
            split(inner[k], i, "\t")
            put(i[2], i[3], i[4], rest(inner[k], 5))
            next
        }
        $2 != "-" { put($2, $3, $4, rest($0, 6)); next }
        (m = rest($0, 6)) == "" { next }
        b { text[bare[b]] = text[bare[b]] m; b--; next }
        { text[++n] = m }
        END { for (j = 1; j <= n; j++) print text[j] }' "$out/.inner.tsv" "$out/.lines.tsv"
}

log() {
    raw | sed -E -e 's/^[0-9:.]+ //; s/(fd|skfd) = [0-9]+/\1 = FD/; s/seq_num( =)? [0-9]+/seq_num\1 N/' \
        -e "s/Family id = $zeb1( |$)/Family id = ZEB1\1/; s/Family id = $zeb2( |$)/Family id = ZEB2\1/" \
        -e "s/Family id = $core1$/Family id = CORE1/"
}

# The evaluation thread's connections, from start to the exit handler.
view_connection() {
    log | grep -E '^(main|zebusr_evaluate|zebusr_connect_loop|zebusr_connect_to_dulox_zeb|zebusr_init_[a-z]+_file|zebusr_start_logging|zebusr_sig_handler|zebusr_cleanup|zebusr_deinit_[a-z]+_file) |^zebusr_genl_init_sock \(MED\): ZEB Family|^zebusr_genl_recv_int_from_kernel \(LOW\):   kernel' |
        grep -v 'Starting dulox_freq_boost_thread' | uniq |
        # After the signal only the exit path counts: a reply may still land.
        awk '/Signal Handler Invoked/ { ending = 1 }
             !ending || /^(zebusr_sig_handler|zebusr_cleanup|zebusr_deinit_[a-z]+_file) / { print }'
    # Before the module exists the controller answers a lookup with an error;
    # the boost thread's failed attempt may close the steering socket first.
    local refused
    refused=$(log | sed '/COMPLETE on attempt/q' | grep -c '^zebusr_netlink_msg_recv (MED): netlink received msg error for family resp$')
    echo "a lookup refused by the controller before the module was loaded: $([ "$refused" -ge 1 ] && echo yes || echo no)"
    echo "receive failures once connected: $(log | sed -e '1,/COMPLETE on attempt/d' -e '/Signal Handler Invoked/q' | grep -c '^zebusr_netlink_msg_recv (MED): recv error - len_recv < 0$')"
}

# The boost thread; an evaluation that repeats the one before is shown once.
view_boost() {
    log | grep -E '^(dulox_freq_boost_monitor|duloxusr_[a-z_]+|zebusr_genl_recv_pid_byte_info_from_kernel) |^main \(HIGH\): Starting dulox_freq|DULOX Family id' |
        awk '/^dulox_freq_boost_monitor \(LOW\): Evaluating/ { if (block != last) printf "%s", block; last = block; block = "" }
             { block = block $0 "\n" }
             END { if (block != last) printf "%s", block }'
}

# What the policies decided and the tables as the daemon first read them.
view_decisions() {
    local l
    l=$(log)
    grep -m 8 'ZEB_CAPS: >' <<<"$l"
    grep -m 3 'ZEB_MMAP: >' <<<"$l"
    grep -m 2 'ZEB_SLOW: >' <<<"$l"
    grep -E '\(HIGH\):   ZEB_SUGG_(UP|DOWN|BAL):|Disabling segmentation' <<<"$l"
}

# Requests as the module decoded them, per family; ports named in order of
# appearance; repeats of the line before shown once.
view_requests() {
    cat "$out/transcript-1.txt" "$out/transcript-2.txt" |
        sed -E -e 's/ seq=[0-9]+//' -e "s/ pid=$daemon / pid=DAEMON /" \
            -e "s/ type=$zeb1 / type=ZEB1 /; s/ type=$core1 / type=CORE1 /; s/ type=$zeb2 / type=ZEB2 /" \
            -e "s/^load zeb=$zeb1 core=$core1$/load ZEB1 CORE1/; s/^load zeb=$zeb2 core=$core2$/load ZEB2 CORE2/" |
        awk '{ fam = ($1 == "pid_bps" || $1 == "boost") ? "core" : "steering" }
             match($0, / port=[0-9]+/) {
                 p = substr($0, RSTART + 6, RLENGTH - 6)
                 if (!((fam, p) in name)) name[fam, p] = substr(fam, 1, 1) (++n[fam])
                 sub(/ port=[0-9]+/, " port=" name[fam, p])
             }
             { print > ("/dev/fd/" (fam == "core" ? 3 : 1)) }' 3>"$out/.core-requests" | uniq
    echo "--- core"
    uniq "$out/.core-requests"
}

# The daemon's own pauses, measured on its log's clock: whole seconds when
# the wait lasted that long and less than one second more.
view_timing() {
    raw | awk '
        function t(line, a) { split(substr(line, 1, 15), a, ":"); return a[1] * 3600 + a[2] * 60 + a[3] }
        function span(what, secs, from, to, d) {
            d = t(to) - t(from)
            printf "%s: %s\n", what, (from != "" && to != "" && d >= secs && d < secs + 0.9) ? secs " s" : d " s"
        }
        / zebusr_sig_handler \(HIGH\): Signal Handler Invoked!$/ { exit }
        / zebusr_connect_to_dulox_zeb \(MED\): zebusr_genl_init_sock failed$/ { zfail[++nz] = $0 }
        / zebusr_connect_loop \(LOW\): zebusr_connect_to_dulox_zeb failed on attempt 0$/ { zretry[++nr] = $0 }
        / duloxusr_connect_to_dulox_core \(MED\): zebusr_genl_init_sock failed$/ && !cfail { cfail = $0 }
        / duloxusr_connect_to_dulox_core \(MED\): zebusr_genl_open_sock complete/ && cfail && !cretry { cretry = $0 }
        / zebusr_sync \(LOW\): ########## SYNC START/ { sync = $0 }
        / zebusr_netlink_msg_recv \(MED\): recv error - len_recv < 0$/ && nz { waited = sync; timeout = $0 }
        / dulox_freq_boost_monitor \(LOW\): Evaluating/ { eval[++ne] = $0 }
        END {
            span("pause after a refused lookup", 3, zfail[1], zretry[1])
            span("pause of the boost thread after a refused lookup", 3, cfail, cretry)
            span("wait for an unanswered sync", 3, waited, timeout)
            span("pause after a refused lookup once the module is gone", 3, zfail[2], zretry[2])
            span("boost evaluation period", 1, eval[1], eval[2])
        }'
}

view_csv() {
    sed -E 's/^[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{6},[0-9]+,/TIME,SEQ,/' "$out/zebusr_caps.csv" | uniq
}

view_outcome() {
    sed -E 's/^[0-9.]+ //' "$out/scenario.txt" | grep -v '^daemon pid'
    [ "$zeb2" != "$zeb1" ] && [ "$core2" != "$core1" ] && echo "families registered again under new ids"
    echo "kernel warnings: $(grep -cE 'WARNING:|BUG:|Oops|Call Trace' "$out/dmesg.txt")"
}

# The guest's log replayed through the host's zebusrd under the simulator:
# every cycle with tables decided, and every query boosted, as in the guest.
view_replay() {
    local text status
    text=$("$here/../scripts/zebusr-log.sh" replay "$out/zebusr_log.txt" 2>&1)
    status=$?
    echo "$text" >"$out/replay.txt"
    if [ "$status" -eq 0 ] &&
        grep -qE '^([1-9][0-9]+) of \1 cycles decided the same$' <<<"$text" &&
        grep -qE '^([1-9][0-9]*) of \1 throughput queries boosted the same$' <<<"$text"; then
        echo "replayed: ten or more cycles, every one decided the same; every query boosted the same"
    else
        echo "replay exit $status:"
        echo "$text"
    fi
}

cases=(connection boost decisions requests timing csv outcome replay)
if [ "${2:-}" = --show ]; then
    for c in "${cases[@]}"; do echo "=== $c"; "view_$c"; done
    exit 0
fi
passed=0 failed=0
for c in "${cases[@]}"; do
    if diff -u "$here/expected/$c.txt" <("view_$c") >"$out/$c.diff" 2>&1; then
        echo "ok   vm/$c"
        passed=$((passed + 1))
    else
        echo "FAIL vm/$c"
        cat "$out/$c.diff"
        failed=$((failed + 1))
    fi
done
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
