"""pytest fixtures for checks against a target.

Enable with ``pytest_plugins = ["ta_kvx.pytest_plugin"]`` in a conftest.py, or ``-p
ta_kvx.pytest_plugin`` on the command line. A test that names ``kvx_target`` gets a Target on a
kvx-agent-sim of its own, stopped when the test ends; ``@pytest.mark.kvx_sim(latency_us=200,
deny=[(0x100, 16)])`` passes options to that simulator. With ``pytest --kvx-server HOST:PORT``
every ``kvx_target`` is on that agent instead, a real one or a simulator started separately, and
the tests marked ``kvx_sim`` are skipped, since they need a simulator of their own.
"""

import pytest

import ta_kvx


def pytest_addoption(parser):
    parser.addoption(
        "--kvx-server",
        metavar="HOST:PORT",
        default=None,
        help="run the tests that use kvx_target against this agent instead of a fresh simulator "
        "(HOST a name, an IPv4 address or an IPv6 address in brackets)",
    )


def pytest_configure(config):
    config.addinivalue_line(
        "markers",
        "kvx_sim(**options): the options of the simulator behind kvx_target, as ta_kvx.Simulator takes "
        "them; skipped under --kvx-server",
    )


def _endpoint(server):
    """HOST:PORT as a (host, port) pair, an IPv6 host without its brackets."""
    host, colon, port = server.rpartition(":")
    if not colon or not port.isdigit() or not host:
        raise pytest.UsageError(f"--kvx-server must be HOST:PORT, not {server!r}")
    return host[1:-1] if host.startswith("[") and host.endswith("]") else host, int(port)


@pytest.fixture
def kvx_target(request):
    """A Target on a fresh simulator, or on the agent that --kvx-server names."""
    server = request.config.getoption("--kvx-server")
    marker = request.node.get_closest_marker("kvx_sim")
    if server:
        if marker:
            pytest.skip(f"needs a simulator of its own with {marker.kwargs}, and --kvx-server names an agent")
        yield ta_kvx.Target(*_endpoint(server))
        return
    with ta_kvx.Simulator(**(marker.kwargs if marker else {})) as simulator:
        yield ta_kvx.Target(simulator.host, simulator.port)
