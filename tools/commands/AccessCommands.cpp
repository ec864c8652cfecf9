// read, write, the word commands (read8..read64, write8..write64), modify, wait, reg, regs,
// symbols, reserve, unreserve, unreserve-all: single accesses and reservations.

#include <string>

#include "bringup/Error.h"
#include "bringup/Numbers.h"
#include "bringup/Ranges.h"
#include "bringup/Registers.h"
#include "bringup/Target.h"
#include "bringup/transfer/MemoryTransfers.h"
#include "tools/Session.h"
#include "tools/commands/Commands.h"
#include "tools/output/HexDump.h"
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
/// A word view shows one 16-byte line of values a line.
constexpr unsigned kWordLineBytes = 16;
/// The most values a word command moves, so that a mistyped count cannot run for hours.
constexpr uint64_t kMostWords = 1u << 20;

/// The most a value of `size` bytes holds.
uint64_t largest(unsigned size) {
  return size < kMaxAccessBytes ? (uint64_t{1} << (8 * size)) - 1 : ~uint64_t{0};
}

/// `text` as a value for `size` bytes; a usage Error when it does not fit.
uint64_t valueFor(const std::string& text, const char* what, unsigned size) {
  const uint64_t value = parseNumber(text, what);
  if (value > largest(size)) {
    throw bringup::usageError("invalid " + std::string(what) + " '" + text + "' (does not fit in " +
                              bringup::byteCount(size) + ")");
  }
  return value;
}

/// The access size given as SIZE or `option`, else the symbol's size when ADDR names one of 1 to
/// 8 bytes, else the default.
unsigned accessSize(const Arguments& arguments, const char* option,
                    const bringup::ElfSymbols::Location& where) {
  if (arguments.has(option)) return bringup::parseAccessSize(arguments.value(option));
  if (where.symbol == nullptr || where.length == 0) return kDefaultAccessBytes;
  if (where.length > kMaxAccessBytes) {
    throw bringup::usageError("'" + where.symbol->name + "' holds " + bringup::byteCount(where.length) +
                              " from there, more than one access (at most 8): give SIZE, or use dump");
  }
  return static_cast<unsigned>(where.length);
}

/// A register's value, zero-padded to its width (16 digits when the description has no width).
std::string registerValue(const bringup::Target::Register& reg) {
  return hexPadded(reg.value, reg.bits ? *reg.bits / 4 : 2 * kMaxAccessBytes);
}

json registerFields(const std::string& name, const bringup::Target::Register& reg) {
  return {{"register", name}, {"bits", reg.bits ? json(*reg.bits) : json()}, {"value", registerValue(reg)}};
}

Action buildRead(const Arguments& arguments) {
  const auto where = arguments.address("ADDR");
  const unsigned size = accessSize(arguments, "SIZE", where);
  bringup::checkedRange(where.address, size);
  return [address = where.address, size](Session& session) {
    uint8_t bytes[kMaxAccessBytes];
    session.target().read(address, bytes, size);
    const std::string value = hexPadded(bringup::fromTargetBytes(bytes, size), 2 * size);
    session.output().result(value, {{"address", hexAddress(address)}, {"size", size}, {"value", value}});
  };
}

Action buildWrite(const Arguments& arguments) {
  const auto where = arguments.address("ADDR");
  const unsigned size = accessSize(arguments, "SIZE", where);
  const uint64_t value = valueFor(arguments.value("VALUE"), "value", size);
  bringup::checkedRange(where.address, size);
  return [address = where.address, size, value](Session& session) {
    uint8_t bytes[kMaxAccessBytes];
    bringup::toTargetBytes(value, bytes, size);
    session.target().write(address, bytes, size);
  };
}

/// read8, read16, read32, read64: COUNT values of `Width` bytes, one access each, in a word view.
template <unsigned Width>
Action buildReadWords(const Arguments& arguments) {
  const uint64_t address = arguments.address("ADDR").address;
  const uint64_t count = arguments.has("COUNT") ? parseNumber(arguments.value("COUNT"), "count") : 1;
  if (count == 0 || count > kMostWords) {
    throw bringup::usageError("invalid count '" + arguments.value("COUNT") + "' (1 to " +
                              std::to_string(kMostWords) + ")");
  }
  const bringup::Range range = bringup::checkedRange(address, count * Width);
  return [range, count](Session& session) {
    const int digits = addressDigits(range.last());
    json all = json::array();
    std::vector<uint64_t> line;
    uint64_t lineAddress = range.address;
    for (uint64_t i = 0; i < count; ++i) {
      uint8_t bytes[kMaxAccessBytes];
      session.target().read(range.address + i * Width, bytes, Width);
      line.push_back(bringup::fromTargetBytes(bytes, Width));
      all.push_back(hexPadded(line.back(), 2 * Width));
      if (line.size() * Width == kWordLineBytes || i + 1 == count) {
        if (!session.output().options().json)
          session.output().text(wordLine(lineAddress, digits, Width, line) + "\n");
        lineAddress += line.size() * Width;
        line.clear();
      }
    }
    if (session.output().options().json) session.output().result("", all);
  };
}

/// write8, write16, write32, write64: one access of `Width` bytes per VALUE, at consecutive
/// addresses. Every value is checked before anything is written.
template <unsigned Width>
Action buildWriteWords(const Arguments& arguments) {
  const uint64_t address = arguments.address("ADDR").address;
  if (!arguments.has("VALUE"))
    throw bringup::usageError(std::string("missing VALUE (usage: kvx-ta write") + std::to_string(8 * Width) +
                              " ADDR VALUE...)");
  std::vector<uint64_t> values;
  for (const std::string& text : arguments.values("VALUE")) values.push_back(valueFor(text, "value", Width));
  bringup::checkedRange(address, values.size() * Width);
  return [address, values](Session& session) {
    for (size_t i = 0; i < values.size(); ++i) {
      uint8_t bytes[kMaxAccessBytes];
      bringup::toTargetBytes(values[i], bytes, Width);
      session.target().write(address + i * Width, bytes, Width);
    }
  };
}

Action buildModify(const Arguments& arguments) {
  const auto where = arguments.address("ADDR");
  const unsigned size = accessSize(arguments, "SIZE", where);
  if (!arguments.has("set") && !arguments.has("clear")) {
    throw bringup::usageError(
        "modify: give --set MASK, --clear MASK or both (usage: kvx-ta modify ADDR [SIZE] "
        "[--set MASK] [--clear MASK])");
  }
  const uint64_t set = arguments.has("set") ? valueFor(arguments.value("set"), "mask", size) : 0;
  const uint64_t clear = arguments.has("clear") ? valueFor(arguments.value("clear"), "mask", size) : 0;
  bringup::checkedRange(where.address, size);
  return [address = where.address, size, set, clear](Session& session) {
    const auto [old, changed] = session.target().modify(address, size, set, clear);
    const std::string before = hexPadded(old, 2 * size);
    const std::string after = hexPadded(changed, 2 * size);
    session.output().result(
        before + " -> " + after,
        {{"address", hexAddress(address)}, {"size", size}, {"old", before}, {"new", after}});
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

Action buildSymbols(const Arguments& arguments) {
  if (arguments.symbols() == nullptr) {
    throw bringup::usageError("symbols: no ELF file to read them from (give --elf FILE, or set KVX_TA_ELF)");
  }
  const std::vector<const bringup::ElfSymbols::Symbol*> matching =
      arguments.symbols()->matching(arguments.has("PATTERN") ? arguments.value("PATTERN") : "");
  return [matching](Session& session) {
    for (const bringup::ElfSymbols::Symbol* symbol : matching) {
      const std::string address = hexPadded(symbol->address, kAddressHexDigits);
      const char* type = bringup::ElfSymbols::typeName(symbol->type);
      std::string size = std::to_string(symbol->size);
      size.insert(0, size.size() < 8 ? 8 - size.size() : 0, ' ');
      std::string typeColumn = type;
      typeColumn.resize(9, ' ');
      session.output().result(
          address + " " + size + "  " + typeColumn + symbol->name,
          {{"name", symbol->name}, {"address", address}, {"size", symbol->size}, {"type", type}});
    }
  };
}

Action buildWait(const Arguments& arguments) {
  bringup::WaitCondition condition;
  condition.address = arguments.address("ADDR").address;
  condition.size =
      arguments.has("size") ? bringup::parseAccessSize(arguments.value("size")) : kDefaultAccessBytes;
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
  const uint64_t address = arguments.address("ADDR").address;
  return [=](Session& session) { session.target().unreserve(address); };
}

Action buildUnreserveAll(const Arguments& /*arguments*/) {
  return [](Session& session) { session.target().unreserveAll(); };
}

template <unsigned Width>
CommandDefinition readWords(const char* name) {
  return {name,
          "ADDR [COUNT]",
          "COUNT " + std::to_string(8 * Width) + "-bit values (default 1) in a word view",
          "Reads COUNT values (default 1) of " + std::to_string(8 * Width) +
              " bits from ADDR on, one access of " + std::to_string(Width) +
              (Width == 1 ? " byte" : " bytes") +
              " each, and prints them as a word view:\n"
              "the address, then the values of one 16-byte line, each zero-padded to its width.\n"
              "With --json, an array of \"0x...\" strings.",
          {"ADDR"},
          {"COUNT"},
          {},
          true,
          buildReadWords<Width>};
}

template <unsigned Width>
CommandDefinition writeWords(const char* name) {
  return {name,
          "ADDR VALUE...",
          "write " + std::to_string(8 * Width) + "-bit values at consecutive addresses",
          "Writes each VALUE in one access of " + std::to_string(Width) + (Width == 1 ? " byte" : " bytes") +
              ", at ADDR and the addresses after it. Every\n"
              "VALUE must fit in that width; they are all checked before anything is written.",
          {"ADDR"},
          {"VALUE"},
          {},
          true,
          buildWriteWords<Width>,
          true};
}

}  // namespace

std::vector<CommandDefinition> accessCommands() {
  return {
      {"read",
       "ADDR [SIZE]",
       "read SIZE bytes (1 to 8, default 4) of target memory",
       "Reads SIZE bytes (1 to 8, default 4, or the size of the symbol ADDR names) at ADDR in one\n"
       "access and prints them as one little-endian value in hex, zero-padded to the access width.",
       {"ADDR"},
       {"SIZE"},
       {},
       true,
       buildRead},
      {"write",
       "ADDR VALUE [SIZE]",
       "write VALUE into SIZE bytes (1 to 8, default 4)",
       "Writes VALUE, little-endian, into SIZE bytes (1 to 8, default 4, or the size of the symbol\n"
       "ADDR names) at ADDR in one access. VALUE must fit in SIZE bytes.",
       {"ADDR", "VALUE"},
       {"SIZE"},
       {},
       true,
       buildWrite},
      readWords<1>("read8"),
      readWords<2>("read16"),
      readWords<4>("read32"),
      readWords<8>("read64"),
      writeWords<1>("write8"),
      writeWords<2>("write16"),
      writeWords<4>("write32"),
      writeWords<8>("write64"),
      {"modify",
       "ADDR [SIZE] [options]",
       "read, clear and set bits, write back",
       "Reads SIZE bytes (1 to 8, default 4) at ADDR once, then writes (old & ~CLEAR) | SET back\n"
       "once, and prints \"old -> new\".",
       {"ADDR"},
       {"SIZE"},
       {{"set", "MASK", "the bits to set"}, {"clear", "MASK", "the bits to clear"}},
       true,
       buildModify},
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
      {"symbols",
       "[PATTERN]",
       "list the ELF file's symbols (--elf) whose names match",
       "Lists the symbols of the ELF file that --elf (or KVX_TA_ELF) names whose names match the\n"
       "shell pattern PATTERN (*, ?, [...]; all without it): address, size, type and name, by\n"
       "address. Touches no target.",
       {},
       {"PATTERN"},
       {},
       true,
       buildSymbols},
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
