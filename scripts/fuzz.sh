#!/usr/bin/env bash
# Builds the libFuzzer targets with clang in build-fuzz/ and runs each for a
# bounded time from its checked-in seed corpus. Fails on the first finding;
# the input that triggered it is left in build-fuzz/findings/.
#   scripts/fuzz.sh [SECONDS_PER_TARGET]   (default 60)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}

bash scripts/install-deps.sh --fuzz
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DIPAPP_FUZZ=ON -DIPAPP_WERROR=ON \
  -DIPAPP_BUILD_TESTS=OFF -DIPAPP_BUILD_BENCH=OFF >/dev/null
cmake --build build-fuzz -j "$(nproc)" --target fuzz_address_text fuzz_keypath fuzz_commit

mkdir -p build-fuzz/findings
for target in address_text keypath commit; do
  # New inputs go to a scratch corpus; the checked-in seeds stay as they are.
  work=build-fuzz/corpus/$target
  mkdir -p "$work"
  echo "fuzz: $target for ${seconds}s" >&2
  if ! "build-fuzz/fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
      -print_final_stats=1 -artifact_prefix="build-fuzz/findings/$target-" \
      "$work" "fuzz/corpus/$target" 2>"build-fuzz/$target.log"; then
    tail -n 60 "build-fuzz/$target.log" >&2
    echo "fuzz: $target found a problem; see build-fuzz/findings/" >&2
    exit 1
  fi
  grep -E '^stat::number_of_executed_units' "build-fuzz/$target.log" >&2 || true
done
