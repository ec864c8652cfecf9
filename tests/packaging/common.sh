# Helpers shared by the packaging drivers. Sourced, not run.
#
# Each driver works in one directory of its own under the build tree (make_workdir), which is
# removed on exit.

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

# Creates a fresh directory under $1 for this run and removes it on exit.
make_workdir() {
  WORK=$(mktemp -d "$1/packaging.XXXXXX")
  trap 'rm -rf "$WORK"' EXIT
}

# Prints the DT_RPATH, or with "runpath" the DT_RUNPATH, of ELF file $1 (empty when it has none).
dynamic_path() {
  local tag=${2:-rpath}
  LC_ALL=C readelf -d "$1" | sed -n "s/.*(${tag^^}) *Library ${tag}: \[\(.*\)\]$/\1/p"
}
