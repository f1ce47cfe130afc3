#!/usr/bin/env bash
# The installed tree works on its own: every installed program starts (its
# libraries are found through its RUNPATH, not the build tree's), and the
# installed ipapp-check finds its plug-in and modules without flags.
#   installed_tree_check.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 source=$2
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
for exe in "$prefix"/bin/*; do
  if ! "$exe" --help >/dev/null 2>"$prefix/err"; then
    echo "installed $(basename "$exe") does not start:" >&2
    cat "$prefix/err" >&2
    exit 1
  fi
done
# ipapp-netconfd's commit runner lives beside its library and takes no
# options: it answers anything else with its usage, once its libraries load.
runner=$(find "$prefix" -name ipapp-netconfd-commit -type f)
if [ -n "$runner" ]; then
  status=0
  "$runner" 2>"$prefix/err" || status=$?
  if [ "$status" != 2 ] || ! grep -q "started by ipapp-netconfd's library only" "$prefix/err"; then
    echo "installed ipapp-netconfd-commit does not start (exit $status):" >&2
    cat "$prefix/err" >&2
    exit 1
  fi
fi
status=0
out=$("$prefix/bin/ipapp-check" --running "$source/examples/running.xml" \
  --candidate "$source/examples/vrf-ospf.xml") || status=$?
if [ "$status" != 1 ] || [[ $out != "refused: "* ]]; then
  echo "installed ipapp-check: exit $status, output: $out" >&2
  exit 1
fi
case $(readelf -d "$prefix/bin/ipapp-check") in
  *"$build"*) echo "installed ipapp-check still names the build tree" >&2; exit 1 ;;
esac
echo "installed tree: $(ls "$prefix/bin" | wc -l) programs start, ipapp-check refuses vrf-ospf.xml"
