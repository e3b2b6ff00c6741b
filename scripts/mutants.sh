#!/usr/bin/env bash
# Mutation runner for the daemon sources; see --help. Runs niced: the machine is shared.
exec nice -n 10 python3 "$(dirname "$0")/mutants.py" "$@"
