#!/usr/bin/env bash
# Runs the installed command-line host from a prefix with no LD_LIBRARY_PATH: it must find the
# plug-in, the stand-ins and its embedded simulator through the prefix alone.
#
# usage: installed_cli.sh CMAKE BUILD_DIR
set -euo pipefail

cmake=$1 build=$2
source "$(dirname "$0")/common.sh"
make_workdir "$build"

prefix="$WORK/prefix"
"$cmake" --install "$build" --prefix "$prefix" --component runtime >/dev/null
unset LD_LIBRARY_PATH
# Run from elsewhere, so nothing is found relative to the working directory either.
cd "$WORK"

version=$("$prefix/bin/kvx-ta" --version) || fail "kvx-ta --version exits non-zero"
[ -n "$version" ] || fail "kvx-ta --version prints nothing"
echo "$version"

output=$("$prefix/bin/kvx-ta" read 0x1000 4) || fail "kvx-ta read with its embedded simulator failed"
echo "$output"
echo "PASS: installed kvx-ta runs from the prefix"
