#!/usr/bin/env bash
# ./qm bench lzstring [--json] [--rounds N]: our decoder against node's lz-string, interleaved, on realistic inputs.
set -euo pipefail
build="$1"; shift
here="$(cd "$(dirname "$0")" && pwd)"
work="$build/bench/lzstring"
mkdir -p "$work"
if [ ! -d "$work/node_modules/lz-string" ]; then
  (cd "$work" && npm install --no-save --silent lz-string@1.5.0 >/dev/null)
fi
NODE_PATH="$work/node_modules" node "$here/lzstring-node.js" "$build/bench/bench_lzstring" "$work/inputs" "$@"
