#!/usr/bin/env bash
# Builds the project and runs the whole test suite.
#   scripts/test.sh              regular build in build/
#   scripts/test.sh --sanitize   AddressSanitizer + UBSan build in build-asan/
#   scripts/test.sh --tsan       the concurrent-commit tests under ThreadSanitizer
#                                in build-tsan/
set -euo pipefail
cd "$(dirname "$0")/.."

build_dir=build
extra=()
targets=()
tests=()
if [ "${1:-}" = "--sanitize" ]; then
  build_dir=build-asan
  extra=(-DIPAPP_SANITIZE=ON -DIPAPP_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug)
elif [ "${1:-}" = "--tsan" ]; then
  build_dir=build-tsan
  extra=(-DIPAPP_TSAN=ON -DIPAPP_BUILD_BENCH=OFF)
  targets=(--target concurrent_commit_test)
  tests=(-L threads)
fi

bash scripts/install-deps.sh
cmake -S . -B "$build_dir" -DIPAPP_WERROR=ON "${extra[@]}" >/dev/null
cmake --build "$build_dir" -j "$(nproc)" "${targets[@]}"
ctest --test-dir "$build_dir" --output-on-failure -j "$(nproc)" "${tests[@]}"
