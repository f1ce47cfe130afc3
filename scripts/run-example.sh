#!/usr/bin/env bash
# Builds the project and runs the main job on a bundled example.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build >/dev/null
cmake --build build -j "$(nproc)"
echo "(no example runner yet)"
