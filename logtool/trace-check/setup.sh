#!/usr/bin/env bash
# Installs the trace readers the trace test uses into DIR (a build folder, so
# the source tree stays clean): package.json and the lock file are copied
# there and `npm ci` runs when they changed. Fails loudly when node or the
# registry cannot be had: the test must not pass without a real reader.
#
#   logtool/trace-check/setup.sh DIR     then: node DIR/check.mjs TRACE.json
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
dir=${1:?usage: setup.sh DIR}
mkdir -p "$dir"

if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
    if [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null; then
        echo "trace-check: installing nodejs and npm" >&2
        apt-get update -qq >&2 && apt-get install -y -qq nodejs npm >&2
    fi
fi
command -v node >/dev/null && command -v npm >/dev/null || {
    echo "trace-check: node and npm are needed (apt-get install nodejs npm)" >&2
    exit 1
}

cp "$here/check.mjs" "$dir/"
if ! cmp -s "$here/package-lock.json" "$dir/package-lock.json" || [ ! -d "$dir/node_modules" ]; then
    cp "$here/package.json" "$here/package-lock.json" "$dir/"
    echo "trace-check: npm ci in $dir" >&2
    (cd "$dir" && npm ci --no-audit --no-fund --loglevel=error >&2) || {
        rm -f "$dir/package-lock.json"  # so the next run tries again
        echo "trace-check: npm ci failed (is the npm registry reachable?)" >&2
        exit 1
    }
fi
