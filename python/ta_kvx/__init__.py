"""The ta_kvx target-access plug-in for Python.

Python code is a host of the plug-in in its own right: a Target is a process from the plug-in's
manager, and its accesses take the same session lock as every other host's. Simulator starts a
kvx-agent-sim to run checks against; the plug-in's log4cxx warnings arrive in the logging
logger "ta_kvx". docs/python.md describes it all.

    with ta_kvx.Simulator() as sim:
        target = ta_kvx.Target(sim.host, sim.port)
        target.write_u32(0x1000, 0x2A)
"""

from ta_kvx._ta_kvx import (
    TA_METHOD_MISSING,
    TA_METHOD_NOT_SERVED,
    TA_METHOD_SERVED,
    Simulator,
    TargetError,
    admission,
)
from ta_kvx._ta_kvx import Target as _Target

__all__ = [
    "TA_METHOD_MISSING",
    "TA_METHOD_NOT_SERVED",
    "TA_METHOD_SERVED",
    "Simulator",
    "Target",
    "TargetError",
    "admission",
]


class Registers:
    """A target's registers by name: registers["pc"] reads one, registers["pc"] = v writes it.

    The agent knows which names exist; an unknown one raises TargetError. Not iterable, as the
    plug-in offers no list of the names.
    """

    __slots__ = ("_target",)

    def __init__(self, target):
        self._target = target

    def __getitem__(self, name):
        return self._target.read_register(name)

    def __setitem__(self, name, value):
        self._target.write_register(name, value)


class Target(_Target):
    __doc__ = _Target.__doc__

    @property
    def registers(self):
        """The target's registers, as a mapping from name to value."""
        return Registers(self)
