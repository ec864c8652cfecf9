"""The ta_kvx package against kvx-agent-sim: what Python adds to the plug-in, each fault once."""

import os
import re
import signal
import subprocess
import sys
import threading
import time
import zlib

import pytest

import ta_kvx
from ta_kvx import Simulator, Target, TargetError


def test_memory_round_trips_through_the_fixture(kvx_target):
    data = bytes(range(1, 20))
    kvx_target.write(0x1003, data)  # an unaligned start, a whole access, an unaligned end
    assert kvx_target.read(0x1003, len(data)) == data
    assert kvx_target.read(0x1003, 0) == b""
    for bits, value in [(8, 0xA5), (16, 0xBEEF), (32, 0xDEADBEEF), (64, 0x0123456789ABCDEF)]:
        getattr(kvx_target, f"write_u{bits}")(0x2000, value)
        assert getattr(kvx_target, f"read_u{bits}")(0x2000) == value
    assert kvx_target.read(0x2000, 8) == bytes.fromhex("efcdab8967452301")  # little-endian


def test_registers_are_a_mapping_from_the_description(kvx_target):
    registers = kvx_target.registers
    registers["pc"] = 0x401000
    assert registers["pc"] == 0x401000
    assert "pc" in registers and "no-such-register" not in registers
    assert len(registers) == len(list(registers)) == 68
    assert dict(registers)["pc"] == 0x401000 and registers.get("no-such-register") is None
    assert Target.register_widths["ps"] == 32
    with pytest.raises(KeyError, match="no register called 'no-such-register'"):
        registers["no-such-register"]


def test_reservations_and_admission(kvx_target):
    block = kvx_target.reserve(64)
    assert kvx_target.unreserve(block) is True
    assert kvx_target.unreserve(block) is False
    kvx_target.reserve(16)
    kvx_target.unreserve_all()

    assert ta_kvx.admission({"TaType": "KVX", "ServerPort": 1}) == ta_kvx.TA_METHOD_SERVED
    assert ta_kvx.admission({"Target Access Method": ["other"]}) == ta_kvx.TA_METHOD_NOT_SERVED
    assert ta_kvx.admission({"ServerPort": 1}) == ta_kvx.TA_METHOD_MISSING


@pytest.mark.kvx_sim(deny=[(0xDEAD0000, 0x100)])
def test_failures_say_why_from_the_agent_call_that_failed(kvx_target):
    target = kvx_target
    with pytest.raises(TargetError) as refused:
        target.read_u32(0xDEAD0010)
    assert (refused.value.address, refused.value.call) == (0xDEAD0010, "io_read")
    assert refused.value.reason.startswith("access denied")
    assert "0xdead0010" in refused.value.message
    assert target.read_u32(0xDEAD0100) == 0  # the session survives a refusal
    with pytest.raises(TargetError) as unknown:
        target.read_register("r64")
    assert (unknown.value.register, unknown.value.call) == ("r64", "reg_read")
    assert "unknown register" in unknown.value.reason
    with pytest.raises(TargetError) as unreachable:
        Target("127.0.0.1", 1).read_u8(0)
    assert "connection refused" in unreachable.value.reason and unreachable.value.status is not None


def test_transfers_match_their_python_equivalents(kvx_target, tmp_path):
    kvx_target.fill(0x1003, 1000, b"\x11\x22\x33", jobs=2)
    expected = (b"\x11\x22\x33" * 334)[:1000]
    assert kvx_target.read(0x1003, 1000) == expected
    assert kvx_target.crc32(0x1003, 1000) == kvx_target.crc32(0x1003, 1000, jobs=3) == zlib.crc32(expected)
    kvx_target.dump(0x1003, 1000, tmp_path / "dump.bin", jobs=3)
    assert (tmp_path / "dump.bin").read_bytes() == expected
    kvx_target.write_u16(0x40, 0x1234)
    assert kvx_target.wait(0x40, 0x34, size=1, timeout_ms=100) == 0x34
    with pytest.raises(TargetError, match="waited 50 ms for 0x0000ffff at 0x40"):
        kvx_target.wait(0x40, 0xFFFF, timeout_ms=50, interval_ms=1000)


def test_widths_search_and_modify(kvx_target):
    kvx_target.fill(0x2000, 32, b"\xcd\xab", width=2)
    assert kvx_target.search(0x2000, 32, b"\xcd\xab", width=2) == list(range(0x2000, 0x2020, 2))
    assert kvx_target.search(0x2000, 32, b"\xab\xcd", width=2) == []
    assert kvx_target.search(0x2000, 32, b"\xab\xcd") == list(range(0x2001, 0x201F, 2))
    with pytest.raises(ValueError, match="not a multiple of the width 4"):
        kvx_target.read(0x2002, 8, width=4)
    kvx_target.write_u32(0x1000, 0xF)
    assert kvx_target.modify(0x1000, set=0x10, clear=0x1) == (0xF, 0x1E)


def test_a_firmware_loads_and_its_symbols_name_addresses(kvx_target):
    firmware = os.environ["KVX_TEST_FIRMWARE"]
    target = Target(kvx_target.host, kvx_target.port, elf=firmware)
    entry = target.load(firmware, verify=True, jobs=2)
    assert entry is not None and entry == int.from_bytes(open(firmware, "rb").read()[24:32], "little")
    assert target.read_u32("g_boot_status") == 0x1234ABCD
    address, size = target.symbols["g_table"]
    assert size == 32 and target.read("g_table", 8) == bytes(range(1, 9))
    assert target.read("g_table+4", 1) == b"\x05" and address == target.symbols["g_table"][0]
    with pytest.raises(ValueError, match="g_boot_status"):
        target.read_u32("g_boot_statsu")


def test_a_target_reaches_its_agent_again_after_a_restart_on_the_same_port():
    with Simulator() as first:
        target = Target(first.host, first.port)
        target.write_u32(0x10, 7)
        port = first.port
    with Simulator(port=port) as second:
        with pytest.raises(TargetError):
            target.read_u32(0x10)  # the session died with the first agent
        target.reconnect()
        assert target.read_u32(0x10) == 0  # a new target: the new agent's memory
        assert repr(target) == f"<ta_kvx.Target on 127.0.0.1:{second.port}>"


def test_ctrl_c_stops_a_long_read_after_the_access_in_flight():
    with Simulator(latency_us=200) as simulator:
        target = Target(simulator.host, simulator.port)
        timer = threading.Timer(0.2, os.kill, (os.getpid(), signal.SIGINT))
        timer.start()
        with pytest.raises(KeyboardInterrupt) as stopped:
            target.read(0, 1 << 20)
        timer.join()
        done = int(re.search(r"; (\d+) of 1048576 bytes were read", str(stopped.value)).group(1))
        assert 0 < done < 1 << 20


@pytest.mark.parametrize(
    "call, error, argument",
    [
        (lambda t: t.read_u32("0x10"), TypeError, "address"),
        (lambda t: t.read(-1, 4), ValueError, "address"),
        (lambda t: t.read(2**64 - 4, 8), ValueError, "length"),
        (lambda t: t.write_u8(0, 256), ValueError, "value"),
        (lambda t: t.write(0, "text"), TypeError, "data"),
        (lambda t: t.read(True, 4), TypeError, "address"),
        (lambda t: t.read(0, 2**63), ValueError, "length"),
        (lambda t: t.write_u32(2**64 - 2, 1), ValueError, "address"),
        (lambda t: t.read_u64(2**64 - 1), ValueError, "address"),
        (lambda t: t.read_register("a\0b"), ValueError, "register name"),
        (lambda t: t.reserve(0), ValueError, "size"),
        (lambda t: t.fill(0, 8, b""), ValueError, "pattern"),
        (lambda t: t.crc32(0, 8, jobs=0), ValueError, "jobs"),
        (lambda t: Target("127.0.0.1", 65536), ValueError, "port"),
        (lambda t: Target("127.0.0.1", 0), ValueError, "port"),
        (lambda t: ta_kvx.admission({"ServerPort": 2**32}), ValueError, "ServerPort"),
        (lambda t: Simulator(deny=[(1, 2, 3)]), TypeError, "deny"),
    ],
)
def test_bad_input_raises_naming_the_argument(call, error, argument):
    target = Target("127.0.0.1", 9)  # makes no agent call until an access
    with pytest.raises(error, match=argument):
        call(target)


def test_threads_on_two_targets_read_back_what_they_wrote():
    with Simulator() as first, Simulator() as second:
        targets = [Target(first.host, first.port), Target(second.host, second.port)]
        failures = []

        def work(thread):
            target = targets[thread % 2]
            for i in range(200):
                # Every thread writes its own word; threads that share a target share its memory.
                value = (thread << 32) | i
                target.write_u64(0x1000 + 8 * thread, value)
                if target.read_u64(0x1000 + 8 * thread) != value:
                    failures.append((thread, i))

        threads = [threading.Thread(target=work, args=(n,)) for n in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        assert failures == []
        # Each target holds only its own threads' words.
        assert targets[0].read_u64(0x1008) == 0 and targets[1].read_u64(0x1000) == 0


def test_access_to_a_hung_agent_fails_while_other_threads_run(monkeypatch):
    monkeypatch.setenv("TA_AGENT_TIMEOUT_MS", "1000")  # read as the session opens
    with Simulator(hang_after=1) as simulator:  # answers the handshake, then nothing
        target = Target(simulator.host, simulator.port)
        failures = []
        calling = threading.Event()

        def read():
            calling.set()
            with pytest.raises(TargetError) as gone:
                target.read_u32(0x40)
            failures.append(gone.value)

        thread = threading.Thread(target=read)
        start = time.monotonic()
        thread.start()
        calling.wait()
        time.sleep(0.05)
        # This thread gets to run while the other one waits on the agent.
        ran = 0
        while time.monotonic() < start + 0.3:
            ran += 1
        thread.join()
        assert ran > 0
        assert [failure.address for failure in failures] == [0x40]


def test_warning_of_the_plugin_arrives_in_logging(kvx_target, caplog):
    assert kvx_target.read_mem(0x70000000, count=2, unit_size=8) == bytes(8)
    (record,) = [r for r in caplog.records if r.name == "ta_kvx"]
    assert record.levelname == "WARNING"
    assert "more than 64 bits" in record.getMessage()


def test_simulator_that_cannot_start_raises_with_its_stderr_and_a_stopped_one_stays_stopped():
    with pytest.raises(RuntimeError, match="--latency-us: at most 10 s"):
        Simulator(latency_us=20_000_000)
    simulator = Simulator()
    simulator.stop()
    assert not simulator.running and "stopped" in repr(simulator)
    with pytest.raises(RuntimeError, match="stopped"):
        simulator.port
    with pytest.raises(RuntimeError, match="stopped"):
        with simulator:
            pass


def test_daemon_threads_in_the_plugin_let_the_interpreter_exit():
    # The daemon threads come back from their accesses while the interpreter shuts down, which
    # SlowShutdown draws out so that all of them are out of the plug-in before the process exits
    # and destroys its statics.
    script = """
import threading, time, ta_kvx
simulator = ta_kvx.Simulator()
target = ta_kvx.Target(simulator.host, simulator.port)
def loop():
    while True:
        target.read_u32(0x10)
class SlowShutdown:
    def __del__(self):
        time.sleep(0.1)
keeper = SlowShutdown()
for _ in range(3):
    threading.Thread(target=loop, daemon=True).start()
time.sleep(0.2)
"""
    finished = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, timeout=60)
    assert finished.returncode == 0, finished.stderr



def test_forked_children_have_sessions_of_their_own(kvx_target):
    import multiprocessing

    context = multiprocessing.get_context("fork")
    results = context.Queue()

    def child(n):
        # The child inherits the Target; its first access opens a connection of its own.
        kvx_target.write_u32(0x6004 + 4 * n, 10 + n)
        results.put((n, kvx_target.read_u32(0x6004 + 4 * n)))

    kvx_target.write_u32(0x6000, 1)
    children = [context.Process(target=child, args=(n,)) for n in range(3)]
    for process in children:
        process.start()
    for process in children:
        process.join(30)
    assert sorted(results.get(timeout=5) for _ in children) == [(n, 10 + n) for n in range(3)]
    assert [process.exitcode for process in children] == [0, 0, 0]
    # The parent's session outlives its children.
    assert kvx_target.read_u32(0x6000) == 1 and kvx_target.read_u32(0x6008) == 11
