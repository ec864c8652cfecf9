#include "tools/Commands.h"

#include <iostream>

#include "tools/Numbers.h"
#include "tools/Session.h"
#include "tools/Target.h"
#include "tools/UsageError.h"

namespace kvx::cli {
namespace {

constexpr unsigned kDefaultAccessBytes = 4;
constexpr unsigned kRegisterHexDigits = 16;
constexpr unsigned kAddressHexDigits = 16;

Action buildRead(const Arguments& arguments) {
  const uint64_t address = parseNumber(arguments.value("ADDR"), "address");
  const unsigned size =
      arguments.has("SIZE") ? parseAccessSize(arguments.value("SIZE")) : kDefaultAccessBytes;
  checkRange(address, size);
  return [=](Session& session) {
    uint8_t bytes[kMaxAccessBytes];
    session.target().read(address, bytes, size);
    std::cout << hexPadded(fromTargetBytes(bytes, size), 2 * size) << '\n';
  };
}

Action buildWrite(const Arguments& arguments) {
  const uint64_t address = parseNumber(arguments.value("ADDR"), "address");
  const uint64_t value = parseNumber(arguments.value("VALUE"), "value");
  const unsigned size =
      arguments.has("SIZE") ? parseAccessSize(arguments.value("SIZE")) : kDefaultAccessBytes;
  checkRange(address, size);
  if (size < kMaxAccessBytes && (value >> (8 * size)) != 0) {
    throw UsageError("invalid value '" + arguments.value("VALUE") + "' (does not fit in " +
                     std::to_string(size) + (size == 1 ? " byte)" : " bytes)"));
  }
  return [=](Session& session) {
    uint8_t bytes[kMaxAccessBytes];
    toTargetBytes(value, bytes, size);
    session.target().write(address, bytes, size);
  };
}

Action buildReg(const Arguments& arguments) {
  const std::string name = arguments.value("NAME");
  if (name.empty()) {
    throw UsageError("invalid register name '' (r0 to r63, pc, sp, ...)");
  }
  if (!arguments.has("VALUE")) {
    return [=](Session& session) {
      std::cout << hexPadded(session.target().readRegister(name), kRegisterHexDigits) << '\n';
    };
  }
  const uint64_t value = parseNumber(arguments.value("VALUE"), "value");
  return [=](Session& session) { session.target().writeRegister(name, value); };
}

Action buildReserve(const Arguments& arguments) {
  const uint64_t size = parseNumber(arguments.value("SIZE"), "size");
  if (size == 0) {
    throw UsageError("invalid size '" + arguments.value("SIZE") + "' (at least 1)");
  }
  return [=](Session& session) {
    std::cout << hexPadded(session.target().reserve(size), kAddressHexDigits) << '\n';
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

std::vector<CommandSpec> accessCommands() {
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
      {"reg",
       "NAME [VALUE]",
       "read a register, or write VALUE into it",
       "Without VALUE, prints the register NAME (r0 to r63, pc, sp, ra, ps on the\n"
       "simulated agent); with VALUE, writes it.",
       {"NAME"},
       {"VALUE"},
       {},
       true,
       buildReg},
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
