#!/usr/bin/env bash
# The shipped binaries name no directory of the machine that built them: neither the source tree
# nor the build tree appears in their strings, debug information included.
#
# usage: no_build_paths.sh SOURCE_DIR BUILD_DIR
set -euo pipefail

source_dir=$1 build=$2
status=0
for binary in lib/libta_kvx.so lib/libtarget.agent.so lib/libvorn_host.so bin/kvx-agent-sim bin/kvx-ta; do
  for tree in "$source_dir" "$build"; do
    if strings -a "$build/$binary" | grep -qF "$tree"; then
      echo "FAIL: $binary holds the path $tree" >&2
      status=1
    fi
  done
done
exit $status
