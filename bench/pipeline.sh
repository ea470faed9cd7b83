#!/usr/bin/env bash
# ./qm bench pipeline [--json] [--calls N]: our request pipeline against bare libcurl keep-alive GETs.
set -euo pipefail
build="$1"; shift
state="$(mktemp -d)"
trap 'kill "${pid:-0}" 2>/dev/null || true; wait 2>/dev/null || true; rm -rf "$state"' EXIT
"$build/server/qmmember-server" --state "$state" >"$state/ready.json" 2>"$state/server.log" &
pid=$!
for _ in $(seq 1 100); do [ -s "$state/ready.json" ] && break; sleep 0.1; done
port=$(sed -n 's/.*"port":\([0-9]*\).*/\1/p' "$state/ready.json")
ca=$(sed -n 's/.*"ca":"\([^"]*\)".*/\1/p' "$state/ready.json")
[ -n "$port" ] || { cat "$state/server.log"; exit 1; }
args=("$@")
printf '%s\n' "${args[@]}" | grep -q -- '--calls' || args+=(--calls 10000)
QM_API_HOST="127.0.0.1:$port" QM_CA_FILE="$ca" "$build/bench/bench_pipeline" "${args[@]}"
