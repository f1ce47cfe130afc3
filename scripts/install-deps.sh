#!/usr/bin/env bash
# Installs the Debian packages the project builds and tests with; installs
# nothing when all are present, so it is safe to run again.
#   --fuzz   also clang and its runtimes (libFuzzer, sanitizers), for
#            scripts/fuzz.sh
set -euo pipefail

packages=(
  cmake make g++ pkg-config
  libboost-dev libboost-system-dev
  libyang2-dev libyang2-tools
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  nlohmann-json3-dev libcli11-dev
  binutils
  netconfd libyuma-dev libxml2-dev openssh-server python3-ncclient yangcli
  python3 gnuplot-nox
)
if [ "${1:-}" = "--fuzz" ]; then
  packages+=(clang libclang-rt-14-dev)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "install-deps: installing ${missing[*]}" >&2
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
  sudo_cmd=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
