#!/usr/bin/env bash
# Regenerates tests/data/lzstring from the reference implementation (npm lz-string).
# The tests read the committed files; only this script needs node and npm.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
out="$here/../../tests/data/lzstring"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
(cd "$work" && npm install --no-save --silent lz-string@1.5.0 >/dev/null)
NODE_PATH="$work/node_modules" node "$here/generate-lzstring.js" "$out"
