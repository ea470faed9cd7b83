#!/usr/bin/env bash
# ./qm bench content [--json] [--reps N]: GetContentMetaData for 100, 1,000 and 10,000 IDs against
# bare libcurl plus one QJsonDocument parse, on a server seeded with 20,000 catalogue items.
set -euo pipefail
build="$1"; shift
state="$(mktemp -d)"
trap 'kill "${pid:-0}" 2>/dev/null || true; wait 2>/dev/null || true; rm -rf "$state"' EXIT
"$build/server/qmmember-server" --state "$state" --admin --seed catalogue=20000 >"$state/ready.json" 2>"$state/server.log" &
pid=$!
for _ in $(seq 1 300); do [ -s "$state/ready.json" ] && break; sleep 0.1; done
port=$(sed -n 's/.*"port":\([0-9]*\).*/\1/p' "$state/ready.json")
ca=$(sed -n 's/.*"ca":"\([^"]*\)".*/\1/p' "$state/ready.json")
[ -n "$port" ] || { cat "$state/server.log"; exit 1; }
QM_API_HOST="127.0.0.1:$port" QM_CA_FILE="$ca" "$build/bench/bench_content" "$@"
