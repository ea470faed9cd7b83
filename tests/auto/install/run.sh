#!/usr/bin/env bash
# Installs the build into a scratch prefix and builds a tiny host against the package.
set -euo pipefail
build="$1"; host="$2"; work="$3"
rm -rf "$work"; mkdir -p "$work"
cmake --install "$build" --prefix "$work/prefix" >/dev/null
cmake -S "$host" -B "$work/host" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/host" >/dev/null
LD_LIBRARY_PATH="$work/prefix/lib:$work/prefix/lib/x86_64-linux-gnu" QM_REGISTRY_DIR="$work/registry" "$work/host/host"
# Installed programs find the library through their RPATH alone.
env -u LD_LIBRARY_PATH "$work/prefix/bin/qmmember" urlscheme encode rpath >/dev/null
# As a subproject: configuring is enough to see the alias and the options at work.
cmake -S "$host/../subproject" -B "$work/subproject" -DQM_SOURCE_DIR="$host/../../../.." >/dev/null
