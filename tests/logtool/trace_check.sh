#!/usr/bin/env bash
# The trace of a real default-scenario run (log and CSV kept in data/), read
# by Chrome DevTools' trace engine and TracerBench's trace model: their report
# of processes, threads, slices, counters and each decision with its numbers
# must be the one checked in. No reader, no pass.
#
#   trace_check.sh ZEBUSR_LOG SOURCE_DIR WORK_DIR [--update]
set -euo pipefail

tool=$1 src=$2 work=$3
data=$src/tests/logtool/data
mkdir -p "$work"
gzip -dc "$data/default_run_log.txt.gz" >"$work/default.log"
"$tool" trace "$work/default.log" --csv "$data/default_run_caps.csv" -o "$work/default.json"
"$src/logtool/trace-check/setup.sh" "$work/trace-check"
node "$work/trace-check/check.mjs" "$work/default.json" >"$work/default.found"
if [ "${4:-}" = --update ]; then
    cp "$work/default.found" "$data/default_run_trace.expected"
fi
diff -u "$data/default_run_trace.expected" "$work/default.found"
echo "trace readers agree with default_run_trace.expected"
