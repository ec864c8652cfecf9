#!/usr/bin/env bash
# Uses the Python package from an installed prefix with no LD_LIBRARY_PATH and no KVX_AGENT_SIM:
# the module must load the prefix's plug-in through its run path, and Simulator must start the
# kvx-agent-sim in the prefix's bin/.
#
# usage: installed_python.sh CMAKE BUILD_DIR PYTHON
set -euo pipefail

cmake=$1 build=$2 python=$3
source "$(dirname "$0")/common.sh"
make_workdir "$build"

prefix="$WORK/prefix"
"$cmake" --install "$build" --prefix "$prefix" --component runtime >/dev/null
unset LD_LIBRARY_PATH KVX_AGENT_SIM
cd "$WORK"

PYTHONPATH="$prefix/lib/python3/dist-packages" "$python" - "$prefix" <<'PYTHON' || fail "the installed package does not work"
import sys
import ta_kvx

prefix = sys.argv[1]
with open("/proc/self/maps") as maps:
    loaded = {line.split()[-1] for line in maps if line.rstrip().endswith(".so")}
assert f"{prefix}/lib/libta_kvx.so" in loaded, sorted(path for path in loaded if "ta_kvx" in path)
with ta_kvx.Simulator() as simulator:
    target = ta_kvx.Target(simulator.host, simulator.port)
    target.write_u32(0x1000, 0x2A)
    assert target.read_u32(0x1000) == 0x2A
PYTHON
echo "PASS: the installed Python package runs from the prefix"
