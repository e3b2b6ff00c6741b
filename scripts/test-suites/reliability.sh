#!/usr/bin/env bash
# The reliability commands in their short forms: ThreadSanitizer over the
# whole-process tests (one round) and the quick fault storms, these on a
# slower clock so that a stall of the machine does not pass for a late
# daemon. The soak and the full forms are in the README.
set -uo pipefail
cd "$(dirname "$0")/../.."

status=0
ROUNDS=1 bash reliability/tsan.sh || status=1
ZEBUSR_SIM_TIME_SCALE=2 bash reliability/fault-storm.sh --quick || status=1
echo "reliability: $([ $status -eq 0 ] && echo passed || echo FAILED)"
exit $status
