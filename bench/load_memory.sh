#!/usr/bin/env bash
# Peak memory of 'kvx-ta load' on a stream: pipes SIZE bytes of zeros (64M unless SIZE says
# otherwise) into 'load /dev/stdin 0' against a kvx-agent-sim started for the purpose, and prints
# kvx-ta's peak resident set size as GNU time measures it. The simulator, which holds the loaded
# bytes, is kvx-ta's parent here, not its child, so its memory is not counted. 64 MiB take a few
# minutes: every 8 bytes are one round trip to the agent.
#
# Usage: bench/load_memory.sh [BIN_DIR]      (default: build/default/bin)
set -euo pipefail

bin=${1:-"$(dirname "$0")/../build/default/bin"}
size=${SIZE:-64M}
if [ ! -x /usr/bin/time ]; then
  echo "load_memory: needs GNU time in /usr/bin/time (Debian package 'time')" >&2
  exit 1
fi
report=$(mktemp)
trap 'rm -f "$report"' EXIT

# --force: a stream's size is unknown, and SIZE may pass the 256 MiB bound.
"$bin/kvx-agent-sim" --quiet --memory-limit 0x40000000 -- sh -c \
  'head -c "$0" /dev/zero |
     /usr/bin/time -v -o "$1" "$2/kvx-ta" --server "$KVX_AGENT_ADDRESS:$KVX_AGENT_PORT" -q --force \
       load /dev/stdin 0' \
  "$size" "$report" "$bin"

rss=$(awk -F': ' '/Maximum resident set size/ { print $2 }' "$report")
wall=$(awk -F'): ' '/Elapsed \(wall clock\)/ { print $2 }' "$report")
echo "load of a $size stream: peak RSS of kvx-ta $rss KiB ($((rss / 1024)) MiB), $wall wall clock"
