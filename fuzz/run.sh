#!/usr/bin/env bash
# Runs each fuzz target for SECONDS, seeded from the test vectors. Findings land in
# fuzz/findings/; add each to the vectors once it is fixed.
set -euo pipefail
bin="$1"; data="$2"; seconds="${3:-60}"
here="$(cd "$(dirname "$0")" && pwd)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
mkdir -p "$here/findings"

seed() { # target, then seed files
  local dir="$work/$1"; shift
  mkdir -p "$dir"
  for f in "$@"; do [ -f "$f" ] && cp "$f" "$dir/"; done
  echo "$dir"
}
mkdir -p "$work/text"
printf 'A:1;;B;C:2:3;D:x' >"$work/text/list"
printf 'P1:3;P2:12' >"$work/text/list2"
printf '682043829C18A27B4A2490B210DEA7681B18F0E75F' >"$work/text/token"
printf '{"status":2}' >"$work/text/json"
printf '{"apiStatus":2,"result":{"status":2,"data":[1,2]}}' >"$work/text/reply"
printf '{"apiStatus":6,"result":{"status":6}}' >"$work/text/expired"
printf '{"access_token":"h.eyJtZW1iZXJpZCI6IjEyMyJ9.s","refresh_token":"r"}' >"$work/text/tokens"
printf '{"error":13}' >"$work/text/error"
printf '{"apiStatus":2,"result":{"status":2,"data":{"Status":0,"Code":"c0de"}}}' >"$work/text/code"
printf '<?xml version="1.0"?><ProductService><Status>2</Status></ProductService>' >"$work/text/xml"
printf 'h.eyJtZW1iZXJpZCI6IjEyMyJ9.s' >"$work/text/jwt"
printf 'guid=1b4e28ba-2fa1-11d2&email=a%%40b.c&password=p%%3Aw+d' >"$work/text/form"
printf 'launcher:YUBiLmM=:cHc=:m:k1:k2' >"$work/text/basic"

status=0
targets=(lzstring cache urlscheme productlist reply tokenreply xml memberid cachefile serverrequest)
for target in "${targets[@]}"; do
  case "$target" in
    lzstring) corpus=$(seed lzstring "$data"/lzstring/*.bin) ;;
    *) corpus=$(seed "$target" "$work"/text/*) ;;
  esac
  echo "==> fuzz_$target for ${seconds}s"
  if ! ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
      "$bin/fuzz_$target" "$corpus" -max_total_time="$seconds" -rss_limit_mb=4096 -max_len=65536 \
      -artifact_prefix="$here/findings/$target-" -print_final_stats=1 2>"$work/$target.log"; then
    status=1
    tail -40 "$work/$target.log"
  else
    grep -E 'stat::number_of_executed_units|stat::peak_rss_mb' "$work/$target.log" | sed 's/^/    /'
  fi
done
exit $status
