#!/usr/bin/env bash
# swift.sh: OpenStack Swift with its S3 layer on 127.0.0.1, in a folder of its own.
#
#   swift.sh start DIR   configures and starts it in DIR, waits until it answers, prints
#                        the environment (QM_S3_URL, QM_S3_KEY, QM_S3_SECRET) to stdout
#   swift.sh stop DIR    stops the servers started in DIR
#
# One replica, rings built with swift-ring-builder, one process per server (workers = 0),
# s3api + tempauth: the access key is "test:tester" and the secret "testing".
set -euo pipefail

PY=/usr/bin/python3   # Debian's python: another python3 earlier on PATH lacks the swift module
USER_NAME="$(id -un)"

free_port() {
  "$PY" -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1]); s.close()'
}

write_server_conf() { # FILE PORT KIND
  cat >"$1" <<CONF
[DEFAULT]
bind_ip = 127.0.0.1
bind_port = $2
workers = 0
user = $USER_NAME
swift_dir = $ETC
devices = $DIR/srv
mount_check = false
log_name = $3-server
log_level = WARNING

[pipeline:main]
pipeline = $3-server

[app:$3-server]
use = egg:swift#$3

[$3-replicator]
[$3-updater]
[$3-auditor]
CONF
}

# Any HTTP status at all: the server is listening and serving.
answers() {
  [ "$(curl -s -o /dev/null -w '%{http_code}' "http://127.0.0.1:$1/" 2>/dev/null)" != 000 ]
}

start() {
  DIR="$1"
  ETC="$DIR/etc"
  mkdir -p "$ETC" "$DIR/srv/d1" "$DIR/run"
  local proxy object container account
  proxy=$(free_port); object=$(free_port); container=$(free_port); account=$(free_port)

  cat >"$ETC/swift.conf" <<CONF
[swift-hash]
swift_hash_path_suffix = qm-$$-suffix
swift_hash_path_prefix = qm-$$-prefix

[storage-policy:0]
name = Policy-0
default = yes
CONF
  write_server_conf "$ETC/object-server.conf" "$object" object
  write_server_conf "$ETC/container-server.conf" "$container" container
  write_server_conf "$ETC/account-server.conf" "$account" account
  cat >"$ETC/proxy-server.conf" <<CONF
[DEFAULT]
bind_ip = 127.0.0.1
bind_port = $proxy
workers = 0
user = $USER_NAME
swift_dir = $ETC
log_level = WARNING

[pipeline:main]
pipeline = catch_errors gatekeeper healthcheck proxy-logging cache listing_formats s3api tempauth copy slo dlo proxy-logging proxy-server

[app:proxy-server]
use = egg:swift#proxy
account_autocreate = true
allow_account_management = true

[filter:s3api]
use = egg:swift#s3api
location = us-east-1
# Parts of 5 MiB or more, as S3 asks, except the last
min_segment_size = 5242880

[filter:tempauth]
use = egg:swift#tempauth
user_test_tester = testing .admin

# tempauth asks for a cache; nothing listens on its port, so every lookup misses at once.
[filter:cache]
use = egg:swift#memcache
memcache_servers = 127.0.0.1:$(free_port)

[filter:catch_errors]
use = egg:swift#catch_errors
[filter:gatekeeper]
use = egg:swift#gatekeeper
[filter:healthcheck]
use = egg:swift#healthcheck
[filter:proxy-logging]
use = egg:swift#proxy_logging
[filter:listing_formats]
use = egg:swift#listing_formats
[filter:copy]
use = egg:swift#copy
[filter:slo]
use = egg:swift#slo
[filter:dlo]
use = egg:swift#dlo
CONF

  local kind port
  for kind in object container account; do
    case $kind in object) port=$object ;; container) port=$container ;; account) port=$account ;; esac
    (cd "$ETC" && "$PY" /usr/bin/swift-ring-builder $kind.builder create 10 1 1 >/dev/null &&
      "$PY" /usr/bin/swift-ring-builder $kind.builder add r1z1-127.0.0.1:$port/d1 1 >/dev/null &&
      "$PY" /usr/bin/swift-ring-builder $kind.builder rebalance >/dev/null) || {
      echo "swift.sh: could not build the $kind ring" >&2; exit 1; }
  done

  for kind in object container account proxy; do
    "$PY" /usr/bin/swift-$kind-server "$ETC/$kind-server.conf" >"$DIR/run/$kind.log" 2>&1 &
    echo $! >"$DIR/run/$kind.pid"
  done

  local url="http://127.0.0.1:$proxy"
  for _ in $(seq 1 300); do
    if curl -sf -o /dev/null "$url/healthcheck" 2>/dev/null && answers "$object" && answers "$container" &&
       answers "$account"; then
      echo "QM_S3_URL=$url"
      echo "QM_S3_KEY=test:tester"
      echo "QM_S3_SECRET=testing"
      return 0
    fi
    for kind in object container account proxy; do
      kill -0 "$(cat "$DIR/run/$kind.pid")" 2>/dev/null || {
        echo "swift.sh: swift-$kind-server ended:" >&2; tail -20 "$DIR/run/$kind.log" >&2; stop "$DIR"; exit 1; }
    done
    sleep 0.1
  done
  echo "swift.sh: Swift did not answer in 30 s" >&2
  stop "$DIR"
  exit 1
}

stop() {
  local dir="$1" pid pids=()
  for kind in proxy object container account; do
    [ -f "$dir/run/$kind.pid" ] || continue
    pid=$(cat "$dir/run/$kind.pid")
    kill "$pid" 2>/dev/null && pids+=("$pid")
    rm -f "$dir/run/$kind.pid"
  done
  # Waits for the servers to be gone, so that their folder can be removed.
  for pid in "${pids[@]}"; do
    for _ in $(seq 1 100); do kill -0 "$pid" 2>/dev/null || break; sleep 0.05; done
    kill -9 "$pid" 2>/dev/null || true
  done
}

case "${1:-}" in
  start) [ -n "${2:-}" ] || { echo "usage: swift.sh start DIR" >&2; exit 2; }; start "$2" ;;
  stop) [ -n "${2:-}" ] || { echo "usage: swift.sh stop DIR" >&2; exit 2; }; stop "$2" ;;
  *) echo "usage: swift.sh start DIR | stop DIR" >&2; exit 2 ;;
esac
