#!/usr/bin/env bash
# Builds the project and checks one bundled example commit: the operator
# renumbers core2, an interface the running OSPF instance uses, and the element
# must refuse the commit with the OSPF text (exit status 1).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build >/dev/null
cmake --build build -j "$(nproc)"

expected_status=1
expected="refused: 10.1.2.1/24 cannot be modified nor deleted, it is assigned to router ospf 5 area 1 (0.0.0.1)"
status=0
output=$(build/tools/ipapp-check --running examples/running.xml \
           --candidate examples/ospf-address-change.xml) || status=$?
printf '%s\n' "$output"
verdict=$(head -n 1 <<<"$output")
if [ "$status" -ne "$expected_status" ] || [ "$verdict" != "$expected" ]; then
  echo "run-example: expected exit status $expected_status and \"$expected\"; got $status and \"$verdict\"" >&2
  exit 1
fi
echo "run-example: the example commit was refused as expected"
