#include "tools/Commands.h"

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <stdexcept>

#include "tools/Demo.h"
#include "tools/Help.h"
#include "tools/HexDump.h"
#include "tools/InputFile.h"
#include "tools/Numbers.h"
#include "tools/Progress.h"
#include "tools/Script.h"
#include "tools/Session.h"
#include "tools/Target.h"
#include "tools/Transfer.h"
#include "tools/UsageError.h"

namespace kvx::cli {
namespace {

constexpr unsigned kDefaultAccessBytes = 4;
constexpr unsigned kRegisterHexDigits = 16;
constexpr unsigned kAddressHexDigits = 16;
const char* const kHelpFlag = "--help";

// ---- The commands ----

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

Action buildDump(const Arguments& arguments) {
  const uint64_t address = parseNumber(arguments.value("ADDR"), "address");
  const uint64_t length = parseNumber(arguments.value("LENGTH"), "length");
  checkRange(address, length);
  const std::string path = arguments.has("out") ? arguments.value("out") : std::string();
  return [=](Session& session) {
    // The file first: a path that cannot be written fails before the target is reached.
    std::ofstream file;
    if (!path.empty()) {
      file.open(path, std::ios::binary | std::ios::trunc);
      if (!file) {
        throw fileError("write", path);
      }
    }
    Target& target = session.target();
    // A bar on the terminal that shows the dump itself would be torn apart by its lines.
    const bool barAllowed = !path.empty() || ::isatty(STDOUT_FILENO) == 0;
    Progress progress("dump", length, "", barAllowed);
    if (path.empty()) {
      HexDump dump(std::cout, address, length);
      Transfer::read(target, address, length, progress,
                     [&dump](const uint8_t* bytes, size_t count) { dump.append(bytes, count); });
      dump.finish();
    } else {
      Transfer::read(target, address, length, progress, [&file](const uint8_t* bytes, size_t count) {
        file.write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(count));
      });
      file.close();
      if (!file) {
        throw fileError("write", path);
      }
    }
    progress.finish();
  };
}

Action buildLoad(const Arguments& arguments) {
  const std::string path = arguments.value("FILE");
  const uint64_t address = parseNumber(arguments.value("ADDR"), "address");
  const bool verify = arguments.has("verify");
  return [=](Session& session) {
    const std::vector<uint8_t> data = readFile(path);
    checkRange(address, data.size());
    Target& target = session.target();
    {
      Progress progress("load", data.size());
      Transfer::write(target, address, data, progress);
      progress.finish();
    }
    if (verify) {
      Progress progress("verify", data.size(), "verified ");
      if (const auto mismatch = Transfer::verify(target, address, data, progress)) {
        throw std::runtime_error("verify failed at " + hexAddress(mismatch->address) + ": wrote " +
                                 hexPadded(mismatch->written, 2) + ", read back " +
                                 hexPadded(mismatch->read, 2));
      }
      progress.finish();
    }
  };
}

Action buildScript(const Arguments& arguments) {
  const std::string path = arguments.has("FILE") ? arguments.value("FILE") : std::string();
  return [=](Session& session) { Script::run(path, session); };
}

Action buildDemo(const Arguments& /*arguments*/) {
  return [](Session& session) {
    if (session.hasServer()) {
      std::cerr << "kvx-ta: the demo starts its own simulated agents; --server is not used\n";
    }
    Demo(session.simulatorPath(), std::cout).run();
  };
}

const std::vector<CommandSpec>& commandTable() {
  static const std::vector<CommandSpec> table{
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
      {"dump",
       "ADDR LENGTH [--out FILE]",
       "hex dump of LENGTH bytes, or their raw bytes into FILE",
       "Reads LENGTH bytes from ADDR, in accesses of at most 8 bytes, and prints a hex-and-ASCII\n"
       "dump, 16 bytes a line, or writes the raw bytes to FILE. Ends with a line on stderr:\n"
       "\"N bytes in X s (Y KiB/s)\".",
       {"ADDR", "LENGTH"},
       {},
       {{"out", "FILE", "write the raw bytes to FILE instead"}},
       true,
       buildDump},
      {"load",
       "FILE ADDR [--verify]",
       "write FILE into target memory at ADDR",
       "Writes the bytes of FILE to target memory from ADDR on, in accesses of at most 8 bytes.\n"
       "With --verify, reads them back and reports the first address that differs. Each pass\n"
       "ends with a line on stderr: \"N bytes in X s (Y KiB/s)\".",
       {"FILE", "ADDR"},
       {},
       {{"verify", nullptr, "read the bytes back and compare"}},
       true,
       buildLoad},
      {"script",
       "[FILE]",
       "run commands from FILE (or stdin), one a line, in one session",
       "Runs the commands in FILE, or on stdin when FILE is absent or '-', one a line and with\n"
       "the same arguments as on the command line, in one session with one agent. Blank lines\n"
       "and words from '#' on are skipped. Stops at the first failure, reported as\n"
       "\"script:LINE: message\", with the exit status of that failure.",
       {},
       {"FILE"},
       {},
       false,
       buildScript},
      {"demo",
       "",
       "a guided tour of the plug-in on simulated agents",
       "Walks through what a host does with the plug-in, on two simulated agents that it starts\n"
       "and stops itself, and prints a transcript of each step and its result.",
       {},
       {},
       {},
       false,
       buildDemo},
  };
  return table;
}

}  // namespace

Action Commands::parse(const std::string& name, const std::vector<std::string>& arguments, Context context) {
  const auto& table = commandTable();
  const auto info = std::find_if(table.begin(), table.end(),
                                 [&name](const CommandSpec& candidate) { return name == candidate.name; });
  if (info == table.end()) {
    throw UsageError("unknown command '" + name + "' (try 'kvx-ta --help')");
  }
  if (context == Context::kScript && !info->scriptable) {
    throw UsageError("'" + name + "' cannot run inside a script");
  }
  if (std::find(arguments.begin(), arguments.end(), kHelpFlag) != arguments.end()) {
    const CommandSpec& spec = *info;
    return [&spec](Session&) { Help::command(spec, std::cout); };
  }
  return info->build(info->parse(arguments));
}

const std::vector<CommandSpec>& Commands::table() { return commandTable(); }

}  // namespace kvx::cli
