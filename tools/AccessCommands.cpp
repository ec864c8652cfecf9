#include <chrono>
#include <string>
#include <thread>

#include "tools/Commands.h"
#include "tools/Failure.h"
#include "tools/Numbers.h"
#include "tools/Output.h"
#include "tools/Session.h"
#include "tools/Target.h"
#include "tools/UsageError.h"

namespace kvx::cli {
namespace {

using nlohmann::json;

constexpr unsigned kDefaultAccessBytes = 4;
constexpr unsigned kAddressHexDigits = 16;
constexpr uint64_t kDefaultWaitMs = 5000;
constexpr uint64_t kDefaultIntervalMs = 100;
/// The general registers of the target architecture; the special ones follow them.
constexpr int kGeneralRegisters = 64;
const char* const kSpecialRegisters[] = {"pc", "sp", "ra", "ps"};

/// The access size given as SIZE or `option`, else the default.
unsigned accessSize(const Arguments& arguments, const char* option) {
  return arguments.has(option) ? parseAccessSize(arguments.value(option)) : kDefaultAccessBytes;
}

/// `text` as a value for `size` bytes; throws UsageError when it does not fit.
uint64_t valueFor(const std::string& text, const char* what, unsigned size) {
  const uint64_t value = parseNumber(text, what);
  if (size < kMaxAccessBytes && (value >> (8 * size)) != 0) {
    throw UsageError("invalid " + std::string(what) + " '" + text + "' (does not fit in " + byteCount(size) +
                     ")");
  }
  return value;
}

/// Prints a register as NAME, its width in bits and its value, zero-padded to the width.
void printRegister(Output& output, const std::string& name, const Target::Register& reg, bool alone) {
  const std::string value = hexPadded(reg.value, 2 * reg.width);
  const json fields{{"register", name}, {"bits", 8 * reg.width}, {"value", reg.value}};
  if (alone) {
    output.result(value, fields);
  } else {
    std::string line = name;
    line.resize(5, ' ');
    output.result(line + std::to_string(8 * reg.width) + "  " + value, fields);
  }
}

Action buildRead(const Arguments& arguments) {
  const uint64_t address = parseNumber(arguments.value("ADDR"), "address");
  const unsigned size = accessSize(arguments, "SIZE");
  checkRange(address, size);
  return [=](Session& session) {
    uint8_t bytes[kMaxAccessBytes];
    session.target().read(address, bytes, size);
    const uint64_t value = fromTargetBytes(bytes, size);
    session.output().result(hexPadded(value, 2 * size),
                            {{"address", address}, {"size", size}, {"value", value}});
  };
}

Action buildWrite(const Arguments& arguments) {
  const uint64_t address = parseNumber(arguments.value("ADDR"), "address");
  const unsigned size = accessSize(arguments, "SIZE");
  const uint64_t value = valueFor(arguments.value("VALUE"), "value", size);
  checkRange(address, size);
  return [=](Session& session) {
    uint8_t bytes[kMaxAccessBytes];
    toTargetBytes(value, bytes, size);
    session.target().write(address, bytes, size);
  };
}

Action buildReg(const Arguments& arguments) {
  const std::string name = arguments.value("NAME");
  if (name.empty()) throw UsageError("invalid register name '' (kvx-ta regs lists the registers)");
  if (!arguments.has("VALUE")) {
    return [=](Session& session) {
      printRegister(session.output(), name, session.target().readRegister(name), true);
    };
  }
  const uint64_t value = parseNumber(arguments.value("VALUE"), "value");
  return [=](Session& session) { session.target().writeRegister(name, value); };
}

Action buildRegs(const Arguments& /*arguments*/) {
  return [](Session& session) {
    std::vector<std::string> names;
    for (int i = 0; i < kGeneralRegisters; ++i) names.push_back("r" + std::to_string(i));
    names.insert(names.end(), std::begin(kSpecialRegisters), std::end(kSpecialRegisters));
    json all = json::array();
    for (const std::string& name : names) {
      // A register the agent does not know is not listed; any other failure ends the command.
      Target::Register reg{};
      try {
        reg = session.target().readRegister(name);
      } catch (const Failure& failure) {
        if (failure.reason().rfind("unknown register", 0) == 0) continue;
        throw;
      }
      if (session.output().options().json) {
        all.push_back({{"name", name}, {"bits", 8 * reg.width}, {"value", reg.value}});
      } else {
        printRegister(session.output(), name, reg, false);
      }
    }
    if (session.output().options().json) session.output().result("", {{"registers", all}});
  };
}

Action buildWait(const Arguments& arguments) {
  const uint64_t address = parseNumber(arguments.value("ADDR"), "address");
  const unsigned size = accessSize(arguments, "size");
  const uint64_t value = valueFor(arguments.value("VALUE"), "value", size);
  const uint64_t mask =
      arguments.has("mask") ? valueFor(arguments.value("mask"), "mask", size) : ~uint64_t{0};
  const uint64_t timeoutMs =
      arguments.has("timeout") ? parseNumber(arguments.value("timeout"), "timeout") : kDefaultWaitMs;
  const uint64_t intervalMs =
      arguments.has("interval") ? parseNumber(arguments.value("interval"), "interval") : kDefaultIntervalMs;
  checkRange(address, size);
  if ((value & mask) != value) {
    throw UsageError("invalid value '" + arguments.value("VALUE") +
                     "' (it has bits the mask clears: it never comes)");
  }
  return [=](Session& session) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    uint8_t bytes[kMaxAccessBytes];
    for (;;) {
      session.target().read(address, bytes, size);
      const uint64_t read = fromTargetBytes(bytes, size);
      const std::string shown = hexPadded(read, 2 * size);
      if ((read & mask) == value) {
        session.output().result(shown, {{"address", address}, {"size", size}, {"value", read}});
        return;
      }
      if (Clock::now() >= end) {
        throw Failure("waited " + std::to_string(timeoutMs) + " ms for " + hexPadded(value, 2 * size) +
                          " at " + hexAddress(address) +
                          (mask == ~uint64_t{0} ? "" : " under mask " + hexPadded(mask, 2 * size)),
                      "the last value read was " + shown);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(intervalMs));
    }
  };
}

Action buildReserve(const Arguments& arguments) {
  const uint64_t size = parseNumber(arguments.value("SIZE"), "size");
  if (size == 0) throw UsageError("invalid size '0' (at least 1)");
  return [=](Session& session) {
    const uint64_t block = session.target().reserve(size);
    session.output().result(hexPadded(block, kAddressHexDigits), {{"address", block}, {"size", size}});
  };
}

Action buildUnreserve(const Arguments& arguments) {
  const uint64_t address = parseNumber(arguments.value("ADDR"), "address");
  return [=](Session& session) { session.target().unreserve(address); };
}

Action buildUnreserveAll(const Arguments& /*arguments*/) {
  return [](Session& session) { session.target().unreserveAll(); };
}

}  // namespace

std::vector<CommandDefinition> accessCommands() {
  return {
      {"read",
       "ADDR [SIZE]",
       "read SIZE bytes (1 to 8, default 4) of target memory",
       "Reads SIZE bytes (1 to 8, default 4) at ADDR in one access and prints them as one\n"
       "little-endian value in hex, zero-padded to the access width.",
       {"ADDR"},
       {"SIZE"},
       {},
       true,
       buildRead},
      {"write",
       "ADDR VALUE [SIZE]",
       "write VALUE into SIZE bytes (1 to 8, default 4)",
       "Writes VALUE, little-endian, into SIZE bytes (1 to 8, default 4) at ADDR in one access.\n"
       "VALUE must fit in SIZE bytes.",
       {"ADDR", "VALUE"},
       {"SIZE"},
       {},
       true,
       buildWrite},
      {"wait",
       "ADDR VALUE [options]",
       "poll target memory until it holds VALUE",
       "Reads N bytes (default 4) at ADDR every MS milliseconds (default 100) until the value\n"
       "read, ANDed with M (default all ones), equals VALUE, and prints it. After the timeout\n"
       "(default 5000 ms) it fails with the last value read.",
       {"ADDR", "VALUE"},
       {},
       {{"mask", "M", "compare only the bits set in M"},
        {"size", "N", "bytes to read, 1 to 8 (default 4)"},
        {"timeout", "MS", "give up after MS milliseconds (default 5000)"},
        {"interval", "MS", "read every MS milliseconds (default 100)"}},
       true,
       buildWait},
      {"reg",
       "NAME [VALUE]",
       "read a register, or write VALUE into it",
       "Without VALUE, prints the register NAME, zero-padded to its width; with VALUE, writes it.\n"
       "'kvx-ta regs' lists the registers.",
       {"NAME"},
       {"VALUE"},
       {},
       true,
       buildReg},
      {"regs",
       "",
       "print every register with its width and value",
       "Prints every register of the target (r0 to r63, pc, sp, ra, ps) that the agent knows:\n"
       "its name, its width in bits and its value.",
       {},
       {},
       {},
       true,
       buildRegs},
      {"reserve",
       "SIZE",
       "reserve SIZE bytes of target memory and print where",
       "Reserves a block of SIZE bytes of target memory and prints its address.",
       {"SIZE"},
       {},
       {},
       true,
       buildReserve},
      {"unreserve",
       "ADDR",
       "release the reserved block that starts at ADDR",
       "Releases the reserved block that starts at ADDR.",
       {"ADDR"},
       {},
       {},
       true,
       buildUnreserve},
      {"unreserve-all",
       "",
       "release every reserved block",
       "Releases every reserved block.",
       {},
       {},
       {},
       true,
       buildUnreserveAll},
  };
}

}  // namespace kvx::cli
