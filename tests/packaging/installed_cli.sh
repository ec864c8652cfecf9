#!/usr/bin/env bash
# Runs the installed command-line host from a prefix with no LD_LIBRARY_PATH: it must find the
# plug-in, the stand-ins and its embedded simulator through the prefix alone. Its man pages and
# bash completion come with it, and the completion reads commands and options from its help.
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
for page in kvx-ta kvx-agent-sim; do
  grep -q '^\.SH OPTIONS' "$prefix/share/man/man1/$page.1" || fail "no man page $page.1 with its options"
done
source "$prefix/share/bash-completion/completions/kvx-ta"
completions() {
  COMP_WORDS=("$prefix/bin/kvx-ta" "$@") COMP_CWORD=$#
  _kvx_ta
  echo " ${COMPREPLY[*]} "
}
[[ $(completions re) == *" read "* ]] || fail "completing 'kvx-ta re' offers:$(completions re)"
[[ $(completions dump --) == *" --out "* ]] || fail "completing 'kvx-ta dump --' offers:$(completions dump --)"
echo "PASS: installed kvx-ta runs from the prefix"
