#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, when any is missing.
# Idempotent, and silent when everything is present. Run as root (or with sudo available).
set -euo pipefail

# Every program that the build, the tests and the scripts run comes from one of these; a minimal
# Debian system has the rest (bash, coreutils, sed, grep, mawk, findutils, tar, dpkg).
packages=(
  # compilers and build tools; clang and its runtime for the fuzzers
  g++ clang lld cmake ninja-build pkg-config libclang-rt-14-dev
  # libraries
  libboost-dev libboost-thread-dev libboost-system-dev libboost-program-options-dev
  liblog4cxx-dev
  libgtest-dev libgmock-dev googletest
  libbenchmark-dev
  libelf-dev nlohmann-json3-dev zlib1g-dev
  # kvx-ta shell's line editing, history and completion (BSD-licensed)
  libedit-dev
  # Python extension modules (pybind11) and pytest
  pybind11-dev python3-dev python3-pytest
  # man pages, generated from the programs' --help
  help2man
  # packaging tests: CPack's Depends line needs dpkg-shlibdeps (dpkg-dev) and file; the tests
  # read dynamic sections with readelf (binutils) and check the package with lintian
  dpkg-dev file binutils lintian
  # hand checks, such as scripted client connections to the simulator; no test runs it
  python3
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
