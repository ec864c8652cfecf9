#!/usr/bin/env python3
"""Plants one-line faults in the product, one at a time, and reports which ones the tests catch.

Each fault replaces one piece of text in one source file. The runner builds the change in a build
directory of its own (build/mutants, a Debug build, so that assertions of invariants are on), runs
the tests that own the faulty layer, and puts the file back, whatever happens. A fault is caught when a test fails; one that does not build is reported
and counted as not caught, since it says nothing about the tests.

    scripts/mutants.py            every fault
    scripts/mutants.py sim cli    the faults of some layers (plugin, agent, sim, bringup, cli)
    scripts/mutants.py --list     the faults, without running anything
"""

import argparse
import os
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILD = os.path.join(ROOT, "build", "mutants")

# The tests that own each layer's faults, as ctest arguments.
TESTS = {
    "plugin": ["-L", "unit|concurrency"],
    "agent": ["-R", "AgentProtocol|TargetAgentClient|AgentFault"],
    "sim": ["-R", "Simulator|ReservationMap|TargetMemory|RegisterFile|^ConnectionTest|TargetAgentClient"],
    "bringup": ["-R", "ErrorTest|FailureReasons|Numbers|Ranges|WorkerMessages|TargetTest|Image|ElfSymbols|"
                      "OutputFile|ScratchFile|KvxTa|ForeignAgent|Pytest"],
    "cli": ["-R", "KvxTa|CommandLine|HexDump"],
}

# (layer, file, text as it stands, replacement, what the fault does)
FAULTS = [
    # ---- The plug-in ----
    ("plugin", "agent/KVXConnection.cpp", "if (get_sock_status() != 0) {", "if (get_sock_status() < 0) {",
     "a lost socket with a positive status keeps the flag"),
    ("plugin", "agent/KVXConnection.cpp", "  if (isActive()) {\n    return true;", "  if (false) {\n    return true;",
     "init reopens a session that is up"),
    ("plugin", "agent/KVXConnection.cpp", "if (isActive() && port != m_targetPort) {", "if (isActive()) {",
     "setting the same port closes the session"),
    ("plugin", "agent/KVXConnection.cpp", "return m_targetPort == other.m_targetPort && m_targetAddress == other.m_targetAddress;",
     "return m_targetPort == other.m_targetPort;", "endpoints compare by port alone"),
    ("plugin", "agent/TaProcessKVX.cpp", "  m_sharedConnection.destroy();\n", "",
     "a switch closes the session once instead of twice"),
    ("plugin", "agent/TaProcessKVX.cpp", "  m_sharedConnection = m_localConnection;\n", "",
     "a switch does not record the new endpoint"),
    ("plugin", "agent/TaProcessKVX.cpp", "return static_cast<uint64_t>(count) * static_cast<uint64_t>(unitSize);",
     "return static_cast<uint32_t>(count * unitSize);", "the byte count is truncated to 32 bits"),
    ("plugin", "agent/TaProcessKVX.cpp", "    std::memcpy(buffer, bytes, n);", "    std::memcpy(buffer, bytes, kMaxAccessBytes);",
     "read_mem overwrites the caller's buffer past n"),
    ("plugin", "agent/TaProcessKVX.cpp",
     "    LOG4CXX_WARN(logger, \"Attempt to write more than 64 bits into a register.\");\n    n = kMaxAccessBytes;",
     "    LOG4CXX_WARN(logger, \"Attempt to write more than 64 bits into a register.\");",
     "a register write is not cut to 8 bytes"),
    ("plugin", "agent/TaProcessKVX.cpp", "  if (n > kMaxAccessBytes) {\n    LOG4CXX_WARN(logger, \"Trying to write",
     "  if (n >= kMaxAccessBytes) {\n    LOG4CXX_WARN(logger, \"Trying to write", "an 8-byte write warns"),
    ("plugin", "agent/TaProcessKVX.cpp", "  extAddress.memorySpace = kReservedMemorySpace;\n  return ddr_unreserve(",
     "  return ddr_unreserve(", "unreserve_mem leaves the memory space as it was"),
    ("plugin", "agent/TaProcessKVX.cpp", "message << \"Cannot read address \" << std::hex",
     "message << \"Cannot read address \"", "the read message gives the address in decimal"),
    ("plugin", "agent/TaProcessKVX.cpp", "  stream.imbue(std::locale::classic());\n", "",
     "messages follow the host's global locale"),
    ("plugin", "agent/TaProcessKVX.cpp",
     "bool TaProcessKVX::read_mem(const ExtAddress& extAddress, size_t count, unsigned int unitSize, void* buffer) {\n"
     "  SessionGuard session(sessionLock());",
     "bool TaProcessKVX::read_mem(const ExtAddress& extAddress, size_t count, unsigned int unitSize, void* buffer) {",
     "read_mem runs without the shared lock"),
    ("plugin", "manager/TaProcessManager.cpp", "attributeAs<EnumAttribute>(config, kTargetAccessMethodKey)",
     "attributeAs<EnumAttribute>(config, kTaTypeKey)", "the enumeration is looked up under the wrong key"),
    ("plugin", "manager/TaProcessManager.cpp", "if (!address || !port) {", "if (!address) {",
     "a block without a port gives a process"),
    ("plugin", "client/TargetConfig_TaProcessClient.cpp", "  m_lastEventReason = reason;\n", "",
     "doCallback forgets the reason"),
    # ---- The agent library and the wire format ----
    ("agent", "platform/agent/AgentSession.cpp", "reply.id != request.id ||", "",
     "a reply to another request is accepted"),
    ("agent", "platform/agent/AgentSession.cpp", "if (status != Status::kOk && m_fd >= 0) {", "if (false) {",
     "a refused handshake leaves the connection open"),
    ("agent", "platform/agent/AgentSession.cpp", "if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {\n    m_fd = parked.fd;",
     "if (true) {\n    m_fd = parked.fd;", "a parked connection is used again without a check that it is alive"),
    ("agent", "common/AgentTimeout.cpp", "if (value == 0 ||", "if (",
     "a deadline of 0 ms is taken"),
    ("agent", "platform/agent/TargetAgentClient.cpp", "std::memcpy(destination, bytes, reply.width);",
     "std::memcpy(destination, bytes, sizeof bytes);", "reg_read stores 8 bytes whatever the register's width"),
    ("agent", "platform/agent/AgentSession.cpp", "(reply.value != protocol::kProtocolVersion ||", "(false ||",
     "an agent announcing another version is taken at its word"),
    ("agent", "platform/agent/TargetAgentClient.cpp", "  if (status == code(Status::kOk)) std::memcpy(buffer, reply.data, size);",
     "  std::memcpy(buffer, reply.data, size);", "a failed io_read hands back zeros as data"),
    ("agent", "platform/protocol/AgentProtocol.cpp", "  if (payloadLength > kMaxPayloadSize) return false;\n", "",
     "an oversized frame header is accepted"),
    ("agent", "platform/protocol/AgentProtocol.cpp", "  if (std::memchr(p + 1, 0, length) != nullptr) return false;\n", "",
     "a register name holding a NUL is accepted"),
    # ---- The simulator ----
    ("sim", "sim/TargetMemory.cpp", "if (address + i - range.start < range.length) return true;",
     "if (address + i - range.start <= range.length) return true;", "a denied range reaches one byte too far"),
    ("sim", "sim/TargetMemory.cpp", "if (lastPage != firstPage && m_pages.count(lastPage) == 0) ++missing;", "",
     "a write across two pages counts one against the limit"),
    ("sim", "sim/RegisterFile.cpp", "name[1] == '0' || ", "", "r01 is taken for r1"),
    ("sim", "sim/ReservationMap.cpp", "if (offset - candidate >= length) break;", "if (offset - candidate > length) break;",
     "a gap of exactly the size asked for is skipped"),
    ("sim", "sim/ReservationMap.cpp", "if (address < m_base) return", "if (address <= m_base) return",
     "the block at the start of the region cannot be released"),
    ("sim", "sim/ReservationMap.cpp", "size > kLargestRoundableSize || ", "", "a size near 2^64 wraps to a small block"),
    ("sim", "sim/RegisterFile.cpp", "if (bits < 64 && (value >> bits) != 0) return", "if (false) return",
     "a value too wide for its register is written"),
    # ---- The bring-up library ----
    ("bringup", "bringup/Ranges.cpp",
     "if (length != 0 && address > std::numeric_limits<uint64_t>::max() - (length - 1)) {", "if (false) {",
     "a range past the top of the address space is accepted"),
    ("bringup", "bringup/Ranges.cpp", "  if (range.address % width != 0) {", "  if (false) {",
     "a misaligned start is taken with a width"),
    ("bringup", "bringup/transfer/Transfer.cpp", "if (expected[i] != found[i]) {", "if (false) {",
     "verify finds no mismatch"),
    ("bringup", "bringup/transfer/MemoryTransfers.cpp", "static_cast<z_off_t>(parts[index].length)",
     "static_cast<z_off_t>(range.length)", "the workers' CRCs are joined with the whole range's length"),
    ("bringup", "bringup/transfer/MemoryTransfers.cpp", "pattern[(part.address - range.address + i) % width]",
     "pattern[i % width]", "each worker starts the fill pattern afresh"),
    ("bringup", "bringup/transfer/MemoryTransfers.cpp", "std::vector<uint8_t> seam = previous->tail;",
     "std::vector<uint8_t> seam;", "a match across the seam of two workers' parts is lost"),
    ("bringup", "bringup/transfer/Workers.cpp", "if (message.progress) m_transfer.advance(*message.progress);", "",
     "the workers' progress is not counted"),
    ("bringup", "bringup/FailureReasons.cpp", "if (library.known) return knownReason(call, context);",
     "return knownReason(call, context);", "another agent library's statuses are interpreted"),
    ("bringup", "bringup/AgentCalls.cpp", "found.known = ioRead != nullptr && buildIdAt(ioRead) == kStandInBuildId;",
     "found.known = false;", "the stand-in is not recognised"),
    ("bringup", "bringup/file/OutputFile.cpp", "  return ::fchmod(m_file.get(), mode) == 0 ? 0 : errno;", "  return 0;",
     "a replaced file loses its mode"),
    ("bringup", "bringup/image/RecordImage.cpp", "      throw overlap(m_file, m_format, parser, record, *run);",
     "      (void)run;", "records that overlap are loaded"),
    # ---- kvx-ta ----
    ("bringup", "common/Numbers.cpp", 'hex ? "0123456789abcdefABCDEF" : "0123456789"', '"0123456789abcdefABCDEF"',
     "decimal numbers take hex digits"),
    ("bringup", "common/Numbers.cpp", "(!hex && digits.size() > 1 && digits[0] == '0')", "false",
     "010 is read as decimal ten"),
    ("cli", "tools/main.cpp", "      return 2;", "      return 1;", "usage errors exit 1"),
    ("cli", "tools/output/HexDump.cpp", "c >= 0x20 && c < 0x7f", "c >= 0x20 && c <= 0x7f",
     "DEL is printed in the ASCII column"),
    ("cli", "tools/Script.cpp", "  if (fromStdin) {", "  if (true) {",
     "a script file runs before its last line is checked"),
]


def run(command, log, **options):
    return subprocess.run(command, cwd=ROOT, stdout=log, stderr=subprocess.STDOUT, **options).returncode


def first_failure(output):
    for line in output.splitlines():
        if "***Failed" in line or "(Failed)" in line or "***Exception" in line or "***Timeout" in line:
            return line.split(":", 1)[-1].split("...")[0].strip()
    return "a test"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("layers", nargs="*", help="layers to mutate: " + ", ".join(TESTS) + " (default: all)")
    parser.add_argument("--list", action="store_true", help="list the faults and exit")
    arguments = parser.parse_args()
    unknown = set(arguments.layers) - set(TESTS)
    if unknown:
        parser.error("unknown layer: " + ", ".join(sorted(unknown)))
    faults = [f for f in FAULTS if not arguments.layers or f[0] in arguments.layers]
    if arguments.list:
        for number, (layer, path, _, _, what) in enumerate(faults, 1):
            print(f"{number:2}. [{layer}] {path}: {what}")
        return 0

    with open(os.devnull, "w") as quiet:
        if run(["cmake", "-S", ".", "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug"], quiet) != 0 or \
                run(["cmake", "--build", BUILD], quiet) != 0:
            print("mutants: the unchanged tree does not build in build/mutants", file=sys.stderr)
            return 2

    caught = 0
    for number, (layer, path, original, replacement, what) in enumerate(faults, 1):
        file = os.path.join(ROOT, path)
        with open(file) as source:
            text = source.read()
        if text.count(original) != 1:
            print(f"{number:2}. [{layer}] {what}: STALE (the text occurs {text.count(original)} times in {path})")
            continue
        started = time.monotonic()
        try:
            with open(file, "w") as source:
                source.write(text.replace(original, replacement))
            build = subprocess.run(["cmake", "--build", BUILD], cwd=ROOT, capture_output=True, text=True)
            if build.returncode != 0:
                verdict = "does not build"
            else:
                tests = subprocess.run(["ctest", "--test-dir", BUILD, "--stop-on-failure", "-j2", "--timeout", "120"]
                                       + TESTS[layer], cwd=ROOT, capture_output=True, text=True)
                if tests.returncode != 0:
                    caught += 1
                    verdict = "caught by " + first_failure(tests.stdout)
                else:
                    verdict = "ESCAPED"
        finally:
            with open(file, "w") as source:
                source.write(text)
        print(f"{number:2}. [{layer}] {what}: {verdict} ({time.monotonic() - started:.0f} s)", flush=True)

    # Leave the build directory matching the tree again.
    subprocess.run(["cmake", "--build", BUILD], cwd=ROOT, capture_output=True)
    print(f"\n{caught} of {len(faults)} caught")
    return 0 if caught == len(faults) else 1


if __name__ == "__main__":
    sys.exit(main())
