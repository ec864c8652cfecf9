# Helpers shared by the packaging drivers. Sourced, not run.
#
# Each driver works in one directory of its own under the build tree (make_workdir), which is
# removed on exit together with any simulator it started.

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

# Creates a fresh directory under $1 for this run and removes it, and stops the simulator, on exit.
make_workdir() {
  WORK=$(mktemp -d "$1/packaging.XXXXXX")
  SIM_PID=""
  trap cleanup EXIT
}

cleanup() {
  if [ -n "${SIM_PID:-}" ]; then
    kill "$SIM_PID" 2>/dev/null || true
    wait "$SIM_PID" 2>/dev/null || true
  fi
  rm -rf "$WORK"
}

# Prints the DT_RPATH, or with "runpath" the DT_RUNPATH, of ELF file $1 (empty when it has none).
dynamic_path() {
  local tag=${2:-rpath}
  LC_ALL=C readelf -d "$1" | sed -n "s/.*(${tag^^}) *Library ${tag}: \[\(.*\)\]$/\1/p"
}

# Starts the simulator $1 (further arguments are its options) in the background and sets
# SIM_ADDRESS and SIM_PORT from its first stdout line, "listening on ADDRESS:PORT".
start_sim() {
  local executable=$1
  shift
  "$executable" "$@" >"$WORK/sim.out" &
  SIM_PID=$!
  local line=""
  for _ in $(seq 100); do
    line=$(head -n 1 "$WORK/sim.out")
    [ -n "$line" ] && break
    kill -0 "$SIM_PID" 2>/dev/null || fail "kvx-agent-sim exited before listening"
    sleep 0.1
  done
  [[ $line == "listening on "* ]] || fail "kvx-agent-sim did not report its port (first line: '$line')"
  local endpoint=${line#listening on }
  SIM_PORT=${endpoint##*:}
  SIM_ADDRESS=${endpoint%:*}
  SIM_ADDRESS=${SIM_ADDRESS#[}
  SIM_ADDRESS=${SIM_ADDRESS%]}
}
