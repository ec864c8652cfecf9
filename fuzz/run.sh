#!/usr/bin/env bash
# Builds the libFuzzer targets (the fuzz preset: clang, ASan + UBSan) and runs each for SECONDS
# seconds (default 60), starting from a scratch copy of its seed corpus in fuzz/corpus/<target>/,
# so the repository's corpus is never changed. Prints the executions of each target; exits 1 if
# any target crashed, leaked, hung, tripped a sanitizer or failed a check, and leaves the input
# that did it in build/fuzz/artifacts/. Needs clang and libclang-rt-14-dev (scripts/setup.sh).
#
#   fuzz/run.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
if [[ ! "$seconds" =~ ^[1-9][0-9]*$ ]]; then
  echo "usage: fuzz/run.sh [SECONDS]" >&2
  exit 2
fi
targets=(request_decoder reply_decoder request_handler)

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

bin=build/fuzz/bin
artifacts=build/fuzz/artifacts
mkdir -p "$artifacts"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

failed=0
for target in "${targets[@]}"; do
  corpus="$scratch/$target"
  cp -R "fuzz/corpus/$target" "$corpus"
  log="$scratch/$target.log"
  # -timeout: an input that takes over 10 s counts as a hang. Value profiles help the fuzzer
  # through the decoders' comparisons of magic, opcode and lengths.
  if "$bin/fuzz_$target" -max_total_time="$seconds" -timeout=10 -use_value_profile=1 \
      -print_final_stats=1 -artifact_prefix="$artifacts/$target-" "$corpus" >"$log" 2>&1; then
    outcome=ok
  else
    outcome=FAILED
    failed=1
  fi
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  inputs=$(find "$corpus" -type f | wc -l)
  printf '%-16s %-6s %12s executions in %s s, %s corpus inputs\n' "$target" "$outcome" "${execs:-?}" "$seconds" \
    "$inputs"
  if [[ "$outcome" != ok ]]; then
    tail -n 40 "$log" >&2
    echo "the input is in $artifacts/ (keep it in fuzz/corpus/$target/ once fixed)" >&2
  fi
done
exit "$failed"
