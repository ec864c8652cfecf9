#!/usr/bin/env bash
# Bulk transfers against the simulated agent, near and far: a dump of SIZE bytes (default 256 KiB)
# with --jobs 1, 2, 4 and 8, against a simulator that answers at once and one that holds every
# reply back 200 us, as an agent across a network would. Prints KiB/s for each and how that grows
# over one job; every dump must give the same bytes. Then a dump of 1 MiB by access width: the
# default (8-byte aligned accesses), --width 8 and --width 4, against the simulator that answers
# at once, each beside --width 8.
#
#   bench/bulk.sh [BUILD_DIR [SIZE]]
set -euo pipefail
build=${1:-build/default}
size=${2:-262144}
kvx_ta="$build/bin/kvx-ta"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

printf '%-12s %6s %12s %8s\n' latency jobs KiB/s speed-up
for latency in 0 200; do
  base=""
  for jobs in 1 2 4 8; do
    start=$(date +%s.%N)
    "$kvx_ta" -q --jobs "$jobs" --sim-option="--latency-us=$latency" dump 0 "$size" --out "$scratch/$jobs.bin"
    rate=$(awk -v s="$start" -v e="$(date +%s.%N)" -v n="$size" 'BEGIN { print n / 1024 / (e - s) }')
    [ -n "$base" ] || base=$rate
    cmp -s "$scratch/1.bin" "$scratch/$jobs.bin" || { echo "bulk.sh: --jobs $jobs gave other bytes" >&2; exit 1; }
    printf '%-12s %6d %12.1f %7.2fx\n' "${latency} us" "$jobs" "$rate" "$(awk -v r="$rate" -v b="$base" 'BEGIN { print r / b }')"
  done
done

printf '\n%-12s %12s %10s\n' width KiB/s "x width 8"
wide=""
for width in 8 default 4; do
  option=()
  [ "$width" = default ] || option=(--width "$width")
  start=$(date +%s.%N)
  "$kvx_ta" -q dump 0 1048576 --out "$scratch/width-$width.bin" "${option[@]}"
  seconds=$(awk -v s="$start" -v e="$(date +%s.%N)" 'BEGIN { print e - s }')
  [ -n "$wide" ] || wide=$seconds
  cmp -s "$scratch/width-8.bin" "$scratch/width-$width.bin" || { echo "bulk.sh: --width $width gave other bytes" >&2; exit 1; }
  printf '%-12s %12.1f %9.2fx\n' "$width" "$(awk -v t="$seconds" 'BEGIN { print 1024 / t }')" \
    "$(awk -v t="$seconds" -v w="$wide" 'BEGIN { print t / w }')"
done
