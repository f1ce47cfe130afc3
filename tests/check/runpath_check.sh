#!/usr/bin/env bash
# Every ELF file under BUILD_DIR: each entry of its RUNPATH or RPATH is an
# absolute directory or starts with $ORIGIN. An empty entry, ".", or any
# other relative one is resolved against the current directory by the
# dynamic loader, which would then load a library planted there.
#   runpath_check.sh BUILD_DIR
set -euo pipefail
build=${1:?usage: runpath_check.sh BUILD_DIR}
checked=0
bad=0
while IFS= read -r -d '' file; do
  [[ $(head -c 4 "$file" 2>/dev/null | od -An -c | tr -d ' ') == '177ELF' ]] || continue
  checked=$((checked + 1))
  while IFS= read -r value; do
    rest=$value
    while :; do
      entry=${rest%%:*}
      if [[ $entry != /* && $entry != '$ORIGIN'* && $entry != '${ORIGIN}'* ]]; then
        echo "$file: search path entry '${entry}' in '${value}'"
        bad=$((bad + 1))
      fi
      [[ $rest == *:* ]] || break
      rest=${rest#*:}
    done
  done < <(readelf -d "$file" 2>/dev/null | sed -n 's/.*(\(RUNPATH\|RPATH\)).*\[\(.*\)\]$/\2/p')
done < <(find "$build" -type f -size +0 -print0)
echo "$checked ELF files checked"
[[ $checked -gt 0 && $bad -eq 0 ]]
