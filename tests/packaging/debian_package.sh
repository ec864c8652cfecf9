#!/usr/bin/env bash
# Builds the Debian package with CPack into a temporary directory and checks it: everything under
# one prefix but the few files Debian wants in /usr/share, the three libraries side by side in its
# lib/, the Python package, the development files, the man pages and completion, a Depends line
# that names the package of every system library the packaged binaries need, and no error from
# lintian.
#
# usage: debian_package.sh CPACK BUILD_DIR
set -euo pipefail

cpack=$1 build=$2
source "$(dirname "$0")/common.sh"
make_workdir "$build"

"$cpack" -G DEB --config "$build/CPackConfig.cmake" -B "$WORK" >"$WORK/cpack.log" 2>&1 ||
  { cat "$WORK/cpack.log"; fail "cpack -G DEB failed"; }
debs=("$WORK"/*.deb)
[ ${#debs[@]} -eq 1 ] && [ -f "${debs[0]}" ] || fail "expected one .deb, found: ${debs[*]}"
deb=${debs[0]}

info=$(dpkg-deb --info "$deb")
contents=$(dpkg-deb --contents "$deb" | awk '{ sub(/ -> .*/, ""); print $NF }')
echo "$info"
echo "$contents"

field() { sed -n "s/^ $1: //p" <<<"$info"; }
[ "$(field Package)" = ta-kvx ] || fail "package name is '$(field Package)'"
depends=$(field Depends)
[ -n "$depends" ] || fail "no Depends line"

prefix=./opt/ta_kvx
for file in lib/libta_kvx.so lib/libvorn_host.so lib/libtarget.agent.so \
            include/manager/TaProcessManager.h include/agent/TargetAgent.h \
            lib/cmake/ta_kvx/ta_kvxConfig.cmake lib/cmake/ta_kvx/ta_kvxConfigVersion.cmake \
            share/man/man1/kvx-ta.1 share/man/man1/kvx-agent-sim.1 \
            share/bash-completion/completions/kvx-ta \
            lib/python3/dist-packages/ta_kvx/__init__.py lib/python3/dist-packages/ta_kvx/pytest_plugin.py; do
  grep -qxF "$prefix/$file" <<<"$contents" || fail "the package lacks $prefix/$file"
done
# The extension module's name ends in the interpreter's tag, such as .cpython-311-x86_64-linux-gnu.so.
grep -qx "$prefix/lib/python3/dist-packages/ta_kvx/_ta_kvx\..*\.so" <<<"$contents" ||
  fail "the package lacks the Python extension module $prefix/lib/python3/dist-packages/ta_kvx/_ta_kvx.*.so"
# Outside the prefix: what Debian wants of every package, and the link through which
# bash-completion finds the completion.
outside=$(grep -v "^$prefix/" <<<"$contents" | grep -vxF "./
./opt/
./usr/
./usr/share/
./usr/share/doc/
./usr/share/doc/ta-kvx/
./usr/share/doc/ta-kvx/copyright
./usr/share/doc/ta-kvx/changelog.gz
./usr/share/lintian/
./usr/share/lintian/overrides/
./usr/share/lintian/overrides/ta-kvx
./usr/share/bash-completion/
./usr/share/bash-completion/completions/
./usr/share/bash-completion/completions/kvx-ta" || true)
[ -z "$outside" ] || fail "the package installs outside $prefix: $outside"

# Depends names packages; compare names only, without versions or alternatives.
declare -A depended
for item in $(tr ',|' '\n\n' <<<"$depends" | sed 's/(.*)//; s/:any//' | tr -d ' '); do
  depended[$item]=1
done
[ -n "$(printf '%s\n' "${!depended[@]}" | grep '^liblog4cxx')" ] || fail "Depends names no liblog4cxx package: $depends"

dpkg-deb -x "$deb" "$WORK/root"
link=$(readlink "$WORK/root/usr/share/bash-completion/completions/kvx-ta")
[ "$link" = "${prefix#.}/share/bash-completion/completions/kvx-ta" ] || fail "the completion's link points at '$link'"
version=$(field Version)
changelog=$(zcat "$WORK/root/usr/share/doc/ta-kvx/changelog.gz")
[[ ${changelog%%$'\n'*} == "ta-kvx ($version) "* ]] || fail "the changelog's latest entry is not for version $version"

# No errors, the /opt layout aside, which the package's own override explains.
command -v lintian >/dev/null || fail "lintian is not installed (scripts/setup.sh installs it)"
lintian_options=()
[ "$(id -u)" -ne 0 ] || lintian_options+=(--allow-root)
lintian_status=0
lintian_output=$(lintian "${lintian_options[@]}" "$deb" 2>&1) || lintian_status=$?
echo "lintian: ${lintian_output:-no tags}"
if grep -q '^E:' <<<"$lintian_output" || [ "$lintian_status" -ne 0 ]; then
  fail "lintian reports errors (status $lintian_status)"
fi

shipped=$(find "$WORK/root" -type f -printf '%f\n')
while IFS= read -r elf; do
  for soname in $(LC_ALL=C readelf -d "$elf" | sed -n 's/.*(NEEDED) *Shared library: \[\(.*\)\]$/\1/p'); do
    if grep -qxF "$soname" <<<"$shipped"; then continue; fi
    owners=$(dpkg-query -S "*/$soname" 2>/dev/null | sed 's|: /.*||' | tr ',' '\n' | sed 's/:.*//; s/ //g' | sort -u) ||
      fail "no installed package provides $soname, needed by $(basename "$elf")"
    found=""
    for owner in $owners; do
      if [ -n "${depended[$owner]:-}" ]; then found=$owner; fi
    done
    [ -n "$found" ] || fail "$(basename "$elf") needs $soname (from $owners), which Depends does not name: $depends"
  done
done < <(find "$WORK/root" -type f -exec sh -c 'readelf -h "$1" >/dev/null 2>&1' _ {} \; -print)
echo "PASS: $(basename "$deb"), Depends: $depends"
