#!/usr/bin/env bash
# Sets everything up, builds, and runs the command-line host's guided tour.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default >/dev/null
exec build/default/bin/kvx-ta demo
