#!/bin/sh
# One life of zebusrd against the test module, in phases that each wait for
# the daemon to reach its point (every wait bounded).
LOG=/data/vendor/zebusr/zebusr_log.txt
CSV=/data/vendor/zebusr/zebusr_caps.csv
ZEB=/proc/zeb

# wait_for FILE PATTERN COUNT SECONDS: until COUNT lines of FILE match.
wait_for() {
    end=$(($(date +%s) + $4))
    while :; do
        n=$(grep -c -e "$2" "$1" 2>/dev/null)
        [ "${n:-0}" -ge "$3" ] && return 0
        if [ "$(date +%s)" -ge "$end" ]; then
            echo "TIMEOUT: $3 lines matching '$2' in $1 (have ${n:-0})"
            return 1
        fi
        sleep 0.1
    done
}

must() {
    "$@" && return 0
    echo "FAILED: $*"
    [ -e $ZEB/transcript ] && cat $ZEB/transcript >/out/transcript-at-failure.txt
    kill -9 "$pid"
    exit 1
}

phase() { echo "$(cut -d' ' -f1 /proc/uptime) $*"; }

# The steering attempt's own failure line, logged before its 3 s pause.
ZEB_LOOKUP_FAILED='zebusr_connect_to_dulox_zeb(): *[0-9]* (MED): zebusr_genl_init_sock failed'
CORE_LOOKUP_FAILED='duloxusr_connect_to_dulox_core(): *[0-9]* (MED): zebusr_genl_init_sock failed'

phase "daemon started, no module"
/zebusrd verbose &
pid=$!
echo "daemon pid $pid"
must wait_for $LOG "$ZEB_LOOKUP_FAILED" 1 20
must wait_for $LOG "$CORE_LOOKUP_FAILED" 1 20

phase "module loaded during the daemon's pause"
insmod /zebtest.ko
cat /steering.ctl >$ZEB/control
must wait_for $ZEB/transcript '^seg .*hash=0x6006' 1 30
must wait_for $ZEB/transcript '^boost ' 1 10

phase "CSV capture on"
kill -USR1 "$pid"
must wait_for $CSV '^[0-9]' 3 10

phase "a sync answered -1"
echo 'code sync -1' >$ZEB/control
must wait_for $LOG 'CONNECTED to dulox_zeb.ko' 2 15
must wait_for $ZEB/transcript '^sync .*=> 0' $(($(grep -c '^sync .*=> 0' $ZEB/transcript) + 3)) 10

phase "a sync left unanswered; the module unloaded meanwhile"
echo 'silent 1' >$ZEB/control
must wait_for $ZEB/transcript '=> silent' 1 10
cat $ZEB/transcript >/out/transcript-1.txt
rmmod zebtest
must wait_for $LOG "$ZEB_LOOKUP_FAILED" 2 15

phase "module loaded again"
insmod /zebtest.ko
cat /quiet.ctl >$ZEB/control
must wait_for $LOG 'CONNECTED to dulox_zeb.ko' 3 15
must wait_for $ZEB/transcript '^sync ' 3 10

# The exit handler closes the socket under the running evaluation thread,
# which may reconnect before the process is gone: the transcript ends here.
cat $ZEB/transcript >/out/transcript-2.txt

phase "SIGTERM"
kill -TERM "$pid"
(sleep 10; kill -9 "$pid") 2>/dev/null &
watchdog=$!
wait "$pid"
echo "daemon exit $?"
kill "$watchdog" 2>/dev/null
phase "done"
