#!/usr/bin/env bash
# Writes the full outcome of every example commit (--keep-going --trace
# --format json) into OUTDIR, one file per candidate, so that two builds can be
# compared with diff -r.
#   scripts/example-traces.sh OUTDIR [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
out=${1:?usage: example-traces.sh OUTDIR [BUILD_DIR]}
build=${2:-build}
mkdir -p "$out"
for f in examples/*.xml examples/*.json; do
  name=$(basename "$f")
  case $name in running.xml | expected.json) continue ;; esac
  status=0
  "$build/tools/ipapp-check" --running examples/running.xml --candidate "$f" \
    --keep-going --trace --format json >"$out/$name.json" || status=$?
  echo "$name $status" >>"$out/status.txt.tmp"
done
sort "$out/status.txt.tmp" >"$out/status.txt"
rm -f "$out/status.txt.tmp"
