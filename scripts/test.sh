#!/usr/bin/env bash
# Sets everything up, builds, and runs every test. Exits non-zero on any failure.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh

cmake --preset default >/dev/null
cmake --build --preset default
ctest --preset default
