#!/usr/bin/env bash
# Installs the build into temporary prefixes and checks what a deployment and a host project get:
#   - the runtime component alone: the three libraries side by side, no development files;
#   - the whole install: RPATHs that point into the prefix, never into the build tree;
#   - a host project that finds the package with find_package(ta_kvx), builds, and reaches the
#     target through a kvx-agent-sim started from the prefix.
#
# usage: install_and_consume.sh CMAKE BUILD_DIR CONSUMER_SOURCE_DIR [CONSUMER_CONFIGURE_ARGS...]
set -euo pipefail

cmake=$1 build=$2 consumer=$3
shift 3
source "$(dirname "$0")/common.sh"
make_workdir "$build"

libraries=(libta_kvx.so libvorn_host.so libtarget.agent.so)

# ---- The runtime component: what a machine that only runs a host needs ----

"$cmake" --install "$build" --prefix "$WORK/runtime" --component runtime >/dev/null
for library in "${libraries[@]}"; do
  [ -f "$WORK/runtime/lib/$library" ] || fail "runtime component lacks lib/$library"
done
[ ! -e "$WORK/runtime/include" ] || fail "runtime component installs headers"
[ ! -e "$WORK/runtime/lib/cmake" ] || fail "runtime component installs the CMake package"

# ---- The whole install ----

prefix="$WORK/prefix"
"$cmake" --install "$build" --prefix "$prefix" >/dev/null

# The plug-in must find the libraries beside it before any on LD_LIBRARY_PATH: DT_RPATH, not
# DT_RUNPATH, and nothing but $ORIGIN.
plugin="$prefix/lib/libta_kvx.so"
[ "$(dynamic_path "$plugin")" = '$ORIGIN' ] || fail "libta_kvx.so: DT_RPATH is '$(dynamic_path "$plugin")', not \$ORIGIN"
[ -z "$(dynamic_path "$plugin" runpath)" ] || fail "libta_kvx.so carries a DT_RUNPATH, which LD_LIBRARY_PATH overrides"
for program in "$prefix"/bin/*; do
  path="$(dynamic_path "$program")$(dynamic_path "$program" runpath)"
  [ "$path" = '$ORIGIN/../lib' ] || fail "$(basename "$program"): search path is '$path', not \$ORIGIN/../lib"
done
for file in "$prefix"/lib/*.so "$prefix"/bin/*; do
  if readelf -d "$file" | grep -qF "$build"; then
    fail "$file names the build tree in its dynamic section"
  fi
done

# ---- Headers ----

# Each public header compiles on its own, against the installed include directory alone and
# against the repository's two include directories alone; no generated header is needed.
source_root=$(cd "$(dirname "$0")/../.." && pwd)
for header in $(cd "$prefix/include" && find . -name '*.h' | sed 's|^\./||'); do
  for includes in "-I$prefix/include" "-I$source_root/include -I$source_root"; do
    # shellcheck disable=SC2086
    echo "#include \"$header\"" | c++ -std=c++17 -fsyntax-only $includes -x c++ - ||
      fail "$header does not compile with $includes alone"
  done
done
# The plug-in links log4cxx privately and no installed header uses it: hosts need not find it.
if grep -rqi log4cxx "$prefix/lib/cmake/ta_kvx"; then fail "the CMake package names log4cxx"; fi

# ---- A host project built against the prefix ----

"$cmake" -S "$consumer" -B "$WORK/consumer" -DCMAKE_PREFIX_PATH="$prefix" "$@" >"$WORK/configure.log" 2>&1 ||
  { cat "$WORK/configure.log"; fail "the consumer project does not configure against the prefix"; }
"$cmake" --build "$WORK/consumer" >"$WORK/build.log" 2>&1 ||
  { cat "$WORK/build.log"; fail "the consumer project does not build against the prefix"; }

[ -x "$prefix/bin/kvx-agent-sim" ] || fail "kvx-agent-sim is not installed"

# A decoy agent library on LD_LIBRARY_PATH: loading it would fail ("invalid ELF header"), so the
# host only runs if the plug-in's DT_RPATH finds the installed one first.
mkdir "$WORK/decoy"
echo "not a library" >"$WORK/decoy/libtarget.agent.so"
# The simulator runs the host and tells it where it listens.
LD_LIBRARY_PATH="$WORK/decoy" "$prefix/bin/kvx-agent-sim" --quiet -- \
  sh -c '"$0" "$KVX_AGENT_ADDRESS" "$KVX_AGENT_PORT"' "$WORK/consumer/host" ||
  fail "the consumer host failed against the installed kvx-agent-sim"
echo "PASS: installed package consumed; the host reached the installed simulator"
