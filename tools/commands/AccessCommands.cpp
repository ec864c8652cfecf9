// read, write, wait, reg, regs, reserve, unreserve, unreserve-all: single accesses and
// reservations.

#include <string>

#include "bringup/Error.h"
#include "bringup/Numbers.h"
#include "bringup/Ranges.h"
#include "bringup/Registers.h"
#include "bringup/Target.h"
#include "bringup/transfer/MemoryTransfers.h"
#include "tools/Session.h"
#include "tools/commands/Commands.h"
#include "tools/output/Output.h"

namespace kvx::cli {
namespace {

using bringup::hexAddress;
using bringup::hexPadded;
using bringup::kMaxAccessBytes;
using bringup::parseNumber;
using nlohmann::json;

constexpr unsigned kDefaultAccessBytes = 4;
constexpr unsigned kAddressHexDigits = 16;

/// The access size given as SIZE or `option`, else the default.
unsigned accessSize(const Arguments& arguments, const char* option) {
  return arguments.has(option) ? bringup::parseAccessSize(arguments.value(option)) : kDefaultAccessBytes;
}

/// `text` as a value for `size` bytes; a usage Error when it does not fit.
uint64_t valueFor(const std::string& text, const char* what, unsigned size) {
  const uint64_t value = parseNumber(text, what);
  if (size < kMaxAccessBytes && (value >> (8 * size)) != 0) {
    throw bringup::usageError("invalid " + std::string(what) + " '" + text + "' (does not fit in " +
                              bringup::byteCount(size) + ")");
  }
  return value;
}

/// A register's value, zero-padded to its width (16 digits when the description has no width).
std::string registerValue(const bringup::Target::Register& reg) {
  return hexPadded(reg.value, reg.bits ? *reg.bits / 4 : 2 * kMaxAccessBytes);
}

json registerFields(const std::string& name, const bringup::Target::Register& reg) {
  return {{"register", name}, {"bits", reg.bits ? json(*reg.bits) : json()}, {"value", registerValue(reg)}};
}

Action buildRead(const Arguments& arguments) {
  const uint64_t address = parseNumber(arguments.value("ADDR"), "address");
  const unsigned size = accessSize(arguments, "SIZE");
  bringup::checkedRange(address, size);
  return [=](Session& session) {
    uint8_t bytes[kMaxAccessBytes];
    session.target().read(address, bytes, size);
    const std::string value = hexPadded(bringup::fromTargetBytes(bytes, size), 2 * size);
    session.output().result(value, {{"address", hexAddress(address)}, {"size", size}, {"value", value}});
  };
}

Action buildWrite(const Arguments& arguments) {
  const uint64_t address = parseNumber(arguments.value("ADDR"), "address");
  const unsigned size = accessSize(arguments, "SIZE");
  const uint64_t value = valueFor(arguments.value("VALUE"), "value", size);
  bringup::checkedRange(address, size);
  return [=](Session& session) {
    uint8_t bytes[kMaxAccessBytes];
    bringup::toTargetBytes(value, bytes, size);
    session.target().write(address, bytes, size);
  };
}

Action buildReg(const Arguments& arguments) {
  const std::string name = arguments.value("NAME");
  if (name.empty()) throw bringup::usageError("invalid register name '' (kvx-ta regs lists the registers)");
  if (!arguments.has("VALUE")) {
    return [=](Session& session) {
      const bringup::Target::Register reg = session.target().readRegister(name);
      session.output().result(registerValue(reg), registerFields(name, reg));
    };
  }
  const uint64_t value = parseNumber(arguments.value("VALUE"), "value");
  return [=](Session& session) { session.target().writeRegister(name, value); };
}

Action buildRegs(const Arguments& /*arguments*/) {
  return [](Session& session) {
    // One read of each register the description names; the widths come from the description.
    for (const bringup::RegisterDescription& description : bringup::registerDescriptions()) {
      const bringup::Target::Register reg = session.target().readRegister(description.name);
      std::string line = description.name;
      line.resize(5, ' ');
      session.output().result(line + std::to_string(description.bits) + "  " + registerValue(reg),
                              registerFields(description.name, reg));
    }
  };
}

Action buildWait(const Arguments& arguments) {
  bringup::WaitCondition condition;
  condition.address = parseNumber(arguments.value("ADDR"), "address");
  condition.size = accessSize(arguments, "size");
  condition.value = valueFor(arguments.value("VALUE"), "value", condition.size);
  if (arguments.has("mask")) condition.mask = valueFor(arguments.value("mask"), "mask", condition.size);
  for (const auto& [option, field] :
       {std::pair{"timeout", &condition.timeoutMs}, {"interval", &condition.intervalMs}}) {
    if (!arguments.has(option)) continue;
    *field = parseNumber(arguments.value(option), option);
    if (*field > bringup::kMaxWaitMs) {
      throw bringup::usageError("invalid " + std::string(option) + " '" + arguments.value(option) +
                                "' (at most " + std::to_string(bringup::kMaxWaitMs) + " ms)");
    }
  }
  bringup::checkedRange(condition.address, condition.size);
  if ((condition.value & condition.mask) != condition.value) {
    throw bringup::usageError("invalid value '" + arguments.value("VALUE") +
                              "' (it has bits the mask clears: it never comes)");
  }
  return [=](Session& session) {
    bringup::NoProgress progress;
    bringup::Transfer transfer = session.transfer(progress, 0);
    const std::string value = hexPadded(bringup::waitFor(transfer, condition), 2 * condition.size);
    session.output().result(
        value, {{"address", hexAddress(condition.address)}, {"size", condition.size}, {"value", value}});
  };
}

Action buildReserve(const Arguments& arguments) {
  const uint64_t size = parseNumber(arguments.value("SIZE"), "size");
  if (size == 0) throw bringup::usageError("invalid size '0' (at least 1)");
  return [=](Session& session) {
    const std::string block = hexPadded(session.target().reserve(size), kAddressHexDigits);
    session.output().result(block, {{"address", block}, {"size", size}});
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
       "(default 5000 ms) it fails with the last value read; it never sleeps past the timeout,\n"
       "and Ctrl-C stops it at once.",
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
       "Without VALUE, reads the register NAME once and prints it, zero-padded to its width; with\n"
       "VALUE, writes it. 'kvx-ta regs' lists the registers.",
       {"NAME"},
       {"VALUE"},
       {},
       true,
       buildReg},
      {"regs",
       "",
       "print every register with its width and value",
       "Prints every register of the target (r0 to r63, pc, sp, ra, ps): its name, its width in\n"
       "bits and its value, read once each.",
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
