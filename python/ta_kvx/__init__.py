"""The ta_kvx target-access plug-in for Python.

Python code is a host of the plug-in in its own right: a Target is a process from the plug-in's
manager, and its accesses take the same session lock as every other host's. It offers what kvx-ta
offers, from the same bring-up library: accesses of any length, registers, reservations, and
load, verify, dump, fill, crc32 and wait. Simulator starts a kvx-agent-sim to run checks against;
the plug-in's log4cxx warnings arrive in the logging logger "ta_kvx". docs/python.md describes it
all.

    with ta_kvx.Simulator() as sim:
        target = ta_kvx.Target(sim.host, sim.port)
        target.write_u32(0x1000, 0x2A)
"""

from collections.abc import MutableMapping

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
    "Registers",
    "Simulator",
    "Target",
    "TargetError",
    "admission",
]


class Registers(MutableMapping):
    """A target's registers by name: registers["pc"] reads one, registers["pc"] = v writes it.

    The names, their number and "in" come from the register description (Target.register_widths),
    so that listing them touches nothing; each read or write is one access. A name the agent does
    not know raises KeyError with the agent's refusal; registers cannot be deleted.
    """

    __slots__ = ("_target",)

    def __init__(self, target):
        self._target = target

    def __getitem__(self, name):
        try:
            return self._target.read_register(name)
        except TargetError as refused:
            if name in self:
                raise
            raise KeyError(f"{name}: {refused.reason}") from refused

    def __setitem__(self, name, value):
        try:
            self._target.write_register(name, value)
        except TargetError as refused:
            if name in self:
                raise
            raise KeyError(f"{name}: {refused.reason}") from refused

    def __delitem__(self, name):
        raise TypeError("registers cannot be deleted")

    def __contains__(self, name):
        return name in self._target.register_widths

    def __iter__(self):
        return iter(self._target.register_widths)

    def __len__(self):
        return len(self._target.register_widths)

    def __repr__(self):
        return f"<ta_kvx.Registers of {self._target!r}>"


class Target(_Target):
    __doc__ = _Target.__doc__

    @property
    def registers(self):
        """The target's registers, as a mutable mapping from name to value."""
        return Registers(self)
