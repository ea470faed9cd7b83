#!/usr/bin/env bash
# ./qm bench publish [--json] [--rounds N]: 64 MiB through the publish job (qmmember publish) and,
# interleaved in the same run, bare `curl --aws-sigv4` multipart with the same 8 MiB parts,
# SHA-256 and Content-MD5. Needs QM_S3_URL, QM_S3_KEY, QM_S3_SECRET (qm starts Swift).
set -euo pipefail
build="$1"; shift
json=0 rounds=5
while [ $# -gt 0 ]; do
  case "$1" in
    --json) json=1 ;;
    --rounds) rounds="$2"; shift ;;
    *) echo "bench publish: unknown argument '$1'" >&2; exit 2 ;;
  esac
  shift
done
work="$(mktemp -d)"
trap 'kill "${pid:-0}" 2>/dev/null || true; wait 2>/dev/null || true; rm -rf "$work"' EXIT
bucket=bench-publish
"$build/server/qmmember-server" --state "$work/state" --seed demo --storage "$QM_S3_URL" \
  --storage-key "$QM_S3_KEY" --storage-secret "$QM_S3_SECRET" --bucket "$bucket" >"$work/ready.json" 2>"$work/server.log" &
pid=$!
for _ in $(seq 1 100); do [ -s "$work/ready.json" ] && break; sleep 0.1; done
port=$(sed -n 's/.*"port":\([0-9]*\).*/\1/p' "$work/ready.json")
[ -n "$port" ] || { cat "$work/server.log"; exit 1; }
export QM_API_HOST="127.0.0.1:$port" QM_WEB_HOST="127.0.0.1:$port"
QM_CA_FILE=$(sed -n 's/.*"ca":"\([^"]*\)".*/\1/p' "$work/ready.json")
export QM_CA_FILE QM_REGISTRY_DIR="$work/registry" XDG_DATA_HOME="$work/data"
qm="$build/tools/qmmember/qmmember"
echo demo-password | "$qm" login --email demo@quillmarsh.test --password-stdin >/dev/null

# The storage's key holds a colon, which --user would split: the credentials go in a netrc file.
host="${QM_S3_URL#http://}"; host="${host%%:*}"
printf 'machine %s\nlogin %s\npassword %s\n' "$host" "$QM_S3_KEY" "$QM_S3_SECRET" >"$work/netrc"
chmod 600 "$work/netrc"
s3=(curl -sS --fail-with-body --aws-sigv4 "aws:amz:us-east-1:s3" --netrc-file "$work/netrc")
empty="x-amz-content-sha256: e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"

pack="$work/bench.pack"
head -c $((64 * 1024 * 1024)) /dev/urandom >"$pack"
split -b $((8 * 1024 * 1024)) -d "$pack" "$work/part."

now() { date +%s.%N; }
minus() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", a - b }'; }

# The job: the transfer phase (create, parts, complete) as the bare curl does it, and the whole job.
job_round() {
  local line start="" end="" begin; begin=$(now)
  while IFS= read -r line; do
    case "$line" in
      *'"event":"phase","phase":"transfer"'*) start=$(now) ;;
      *'"event":"phase","phase":"metadata"'*) end=$(now) ;;
      *'"event":"result"'*) [[ "$line" == *'"result":2'* ]] || { echo "publish failed: $line" >&2; exit 1; } ;;
    esac
  done < <("$qm" --json publish "$pack" --product BenchStudio --version 1)
  echo "$(minus "$end" "$start") $(minus "$(now)" "$begin")"
}

curl_round() {
  local key="bare/$1" start n=0 id etag parts="" f
  start=$(now)
  id=$("${s3[@]}" -X POST -H "$empty" "$QM_S3_URL/$bucket/$key?uploads=" | sed -n 's:.*<UploadId>\(.*\)</UploadId>.*:\1:p')
  for f in "$work"/part.*; do
    n=$((n + 1))
    etag=$("${s3[@]}" -T "$f" -o /dev/null -D - \
      -H "x-amz-content-sha256: $(sha256sum "$f" | cut -d' ' -f1)" -H "Content-MD5: $(openssl md5 -binary "$f" | base64)" \
      "$QM_S3_URL/$bucket/$key?partNumber=$n&uploadId=$id" | tr -d '\r' | sed -n 's/^[Ee][Tt]ag: //p')
    parts+="<Part><PartNumber>$n</PartNumber><ETag>$etag</ETag></Part>"
  done
  local body="<CompleteMultipartUpload>$parts</CompleteMultipartUpload>"
  "${s3[@]}" -X POST -o /dev/null -H "x-amz-content-sha256: $(printf '%s' "$body" | sha256sum | cut -d' ' -f1)" \
    --data-binary "$body" "$QM_S3_URL/$bucket/$key?uploadId=$id"
  minus "$(now)" "$start"; echo
  "${s3[@]}" -X DELETE -H "$empty" "$QM_S3_URL/$bucket/$key" -o /dev/null
}

job_transfer=() job_whole=() bare=()
for round in $(seq 1 "$rounds"); do
  read -r t w < <(job_round)
  job_transfer+=("$t"); job_whole+=("$w")
  bare+=("$(curl_round "$round")")
done

stats() { printf '%s\n' "$@" | sort -g | awk '{a[NR]=$1} END {m=(NR%2)?a[(NR+1)/2]:(a[NR/2]+a[NR/2+1])/2; printf "%.3f %.3f %.3f", m, a[1], a[NR]}'; }
read -r jm jmin jmax <<<"$(stats "${job_transfer[@]}")"
read -r wm wmin wmax <<<"$(stats "${job_whole[@]}")"
read -r bm bmin bmax <<<"$(stats "${bare[@]}")"
ratio=$(awk -v a="$jm" -v b="$bm" 'BEGIN { printf "%.2f", a / b }')
if [ "$json" -eq 1 ]; then
  printf '{"bytes":%d,"rounds":%d,"job_transfer_s":{"median":%s,"min":%s,"max":%s},"job_whole_s":{"median":%s,"min":%s,"max":%s},"curl_s":{"median":%s,"min":%s,"max":%s},"ratio":%s}\n' \
    $((64 * 1024 * 1024)) "$rounds" "$jm" "$jmin" "$jmax" "$wm" "$wmin" "$wmax" "$bm" "$bmin" "$bmax" "$ratio"
else
  printf '64 MiB, %d rounds interleaved, seconds as median (min..max)\n' "$rounds"
  printf '  publish job, transfer phase   %s (%s..%s)\n' "$jm" "$jmin" "$jmax"
  printf '  publish job, whole job        %s (%s..%s)  hash, transfer, metadata, server check\n' "$wm" "$wmin" "$wmax"
  printf '  bare curl --aws-sigv4         %s (%s..%s)\n' "$bm" "$bmin" "$bmax"
  printf '  transfer / curl               %s (target 1.2 at most)\n' "$ratio"
fi
