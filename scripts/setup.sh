#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, when any is missing.
# Idempotent, and silent when everything is present. Run as root (or with sudo available).
set -euo pipefail

packages=(
  g++ clang lld cmake ninja-build pkg-config
  libboost-dev libboost-thread-dev libboost-system-dev libboost-program-options-dev
  liblog4cxx-dev
  libgtest-dev libgmock-dev googletest
  libbenchmark-dev
  libclang-rt-14-dev
  python3 dpkg-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "setup: installing ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
