#!/usr/bin/env bash
# Sets everything up, builds, and runs every test: the whole suite in the normal build and under
# AddressSanitizer + UndefinedBehaviorSanitizer, and the concurrency tests under ThreadSanitizer.
# Exits non-zero on the first failure.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh

jobs=$(nproc)
step() { printf '\n== %s ==\n' "$*"; }

step "normal build"
cmake --preset default >/dev/null
cmake --build --preset default -j "$jobs"
ctest --preset default -j "$jobs"

step "benchmarks, once each, to prove they run"
build/default/bin/ta_kvx_bench --benchmark_min_time=0.01

step "AddressSanitizer + UndefinedBehaviorSanitizer"
cmake --preset asan >/dev/null
cmake --build --preset asan -j "$jobs"
ctest --preset asan -j "$jobs"

step "ThreadSanitizer (concurrency tests)"
cmake --preset tsan >/dev/null
cmake --build --preset tsan -j "$jobs"
ctest --preset tsan

step "fuzzers (libFuzzer, ASan + UBSan)"
./fuzz/run.sh "${TA_KVX_FUZZ_SECONDS:-30}"
