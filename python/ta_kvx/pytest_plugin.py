"""pytest fixtures for checks against a simulated target.

Enable with ``pytest_plugins = ["ta_kvx.pytest_plugin"]`` in a conftest.py, or ``-p
ta_kvx.pytest_plugin`` on the command line; then a test that names ``kvx_target`` gets a Target
on a kvx-agent-sim of its own, stopped when the test ends.
"""

import pytest

import ta_kvx


@pytest.fixture
def kvx_target():
    """A Target on a fresh simulator with default options."""
    with ta_kvx.Simulator() as simulator:
        yield ta_kvx.Target(simulator.host, simulator.port)
