#!/usr/bin/env bash
# ./qm bench lzstring [--json]: our decoder against node's lz-string, on the same inputs.
set -euo pipefail
build="$1"; shift
here="$(cd "$(dirname "$0")" && pwd)"
work="$build/bench/lzstring"
mkdir -p "$work"
if [ ! -d "$work/node_modules/lz-string" ]; then
  (cd "$work" && npm install --no-save --silent lz-string@1.5.0 >/dev/null)
fi
echo "generating inputs and timing node's decoder..." >&2
NODE_PATH="$work/node_modules" node "$here/lzstring-node.js" "$work/inputs"
echo "timing ours..." >&2
"$build/bench/bench_lzstring" "$work"/inputs/*.bin --benchmark_repetitions=9 --benchmark_min_time=0.2 \
  --benchmark_report_aggregates_only=true --benchmark_format=json >"$work/ours.json" 2>/dev/null
node "$here/lzstring-report.js" "$work/inputs/node.json" "$work/ours.json" "$@"
