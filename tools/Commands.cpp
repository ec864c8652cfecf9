#include "Commands.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <utility>

#include <boost/program_options.hpp>

#include "Demo.h"
#include "HexDump.h"
#include "Numbers.h"
#include "Progress.h"
#include "Session.h"
#include "Target.h"
#include "Transfer.h"
#include "UsageError.h"
#include "vorn/Exception.h"

namespace po = boost::program_options;

namespace kvx::cli {
namespace {

constexpr unsigned kDefaultAccessBytes = 4;
constexpr unsigned kRegisterHexDigits = 16;
constexpr unsigned kAddressHexDigits = 16;
const char* const kHelpFlag = "--help";

/// Commands take long options only, spelt out: "-1" is then an argument (and a bad number), and
/// "--ver" is not taken for "--verify".
constexpr int kCommandStyle = po::command_line_style::allow_long |
                              po::command_line_style::long_allow_adjacent |
                              po::command_line_style::long_allow_next;

/// An option of a command: a switch when valueName is null.
struct Flag {
  const char* name;
  const char* valueName;
  const char* description;
};

/// The checked arguments of one command, by name: positional ones by their placeholder
/// ("ADDR"), options by their long name ("out").
class Arguments {
 public:
  explicit Arguments(po::variables_map values) : m_values(std::move(values)) {}

  bool has(const char* name) const { return m_values.count(name) != 0; }
  const std::string& value(const char* name) const { return m_values[name].as<std::string>(); }

 private:
  po::variables_map m_values;
};

struct CommandInfo {
  const char* name;
  /// The arguments as the synopsis shows them.
  const char* synopsis;
  const char* summary;
  const char* description;
  std::vector<const char*> required;
  std::vector<const char*> optional;
  std::vector<Flag> flags;
  bool scriptable;
  Action (*build)(const Arguments& arguments);
};

// ---- Helpers of the commands ----

std::runtime_error fileError(const std::string& what, const std::string& path) {
  return std::runtime_error("cannot " + what + " '" + path + "': " + std::strerror(errno));
}

/// The whole of the file at `path`. Plain POSIX reads: a read error becomes a message naming the
/// file, where a stream would throw its own or stop silently.
std::vector<uint8_t> readFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    throw fileError("read", path);
  }
  std::vector<uint8_t> data;
  uint8_t buffer[64 * 1024];
  for (;;) {
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got < 0) {
      const int error = errno;
      ::close(fd);
      errno = error;
      throw fileError("read", path);
    }
    if (got == 0) {
      break;
    }
    data.insert(data.end(), buffer, buffer + got);
  }
  ::close(fd);
  return data;
}

/// The words of a script line; a word that starts with '#' starts a comment.
std::vector<std::string> splitWords(const std::string& line) {
  std::istringstream stream(line);
  std::vector<std::string> words;
  std::string word;
  while (stream >> word && word.front() != '#') {
    words.push_back(word);
  }
  return words;
}

void runScript(const std::string& path, Session& session) {
  std::ifstream file;
  std::istream* in = &std::cin;
  if (!path.empty() && path != "-") {
    file.open(path);
    if (!file) {
      throw fileError("read script", path);
    }
    in = &file;
  }
  std::string line;
  for (unsigned number = 1; std::getline(*in, line); ++number) {
    const std::vector<std::string> words = splitWords(line);
    if (words.empty()) {
      continue;
    }
    // The failure keeps its kind, and so the exit status, and gains its line.
    const std::string where = "script:" + std::to_string(number) + ": ";
    try {
      Commands::parse(words.front(), {words.begin() + 1, words.end()}, Commands::Context::kScript)(session);
    } catch (const UsageError& failure) {
      throw UsageError(where + failure.what());
    } catch (const vorn::Exception& failure) {
      throw vorn::Exception(failure.getFile().c_str(), failure.getLine(), where + failure.getMessage());
    } catch (const std::runtime_error& failure) {
      throw std::runtime_error(where + failure.what());
    }
  }
  if (in->bad()) {
    throw fileError("read script", path.empty() ? "-" : path);
  }
}

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
  return [=](Session& session) { runScript(path, session); };
}

Action buildDemo(const Arguments& /*arguments*/) {
  return [](Session& session) {
    if (session.hasServer()) {
      std::cerr << "kvx-ta: the demo starts its own simulated agents; --server is not used\n";
    }
    Demo(session.simulatorPath(), std::cout).run();
  };
}

const std::vector<CommandInfo>& commandTable() {
  static const std::vector<CommandInfo> table{
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
       "Without VALUE, prints the 64-bit register NAME (r0 to r63, pc, sp, ra, ps on the\n"
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

std::string usageLine(const CommandInfo& info) {
  return std::string("kvx-ta ") + info.name + (*info.synopsis != '\0' ? " " : "") + info.synopsis;
}

po::options_description visibleOptions(const CommandInfo& info) {
  po::options_description options("Options");
  options.add_options()("help", "describe this command");
  for (const Flag& flag : info.flags) {
    if (flag.valueName != nullptr) {
      options.add_options()(flag.name, po::value<std::string>()->value_name(flag.valueName),
                            flag.description);
    } else {
      options.add_options()(flag.name, flag.description);
    }
  }
  return options;
}

void printHelp(const CommandInfo& info, std::ostream& out) {
  out << "Usage: " << usageLine(info) << "\n\n" << info.description << "\n\n" << visibleOptions(info);
}

po::variables_map parseArguments(const CommandInfo& info, const std::vector<std::string>& arguments) {
  po::options_description all;
  all.add(visibleOptions(info));
  po::positional_options_description positional;
  for (const auto* names : {&info.required, &info.optional}) {
    for (const char* name : *names) {
      all.add_options()(name, po::value<std::string>());
      positional.add(name, 1);
    }
  }
  const std::string usage = " (usage: " + usageLine(info) + ")";
  po::variables_map values;
  try {
    po::store(
        po::command_line_parser(arguments).options(all).positional(positional).style(kCommandStyle).run(),
        values);
  } catch (const po::too_many_positional_options_error&) {
    throw UsageError(std::string(info.name) + ": too many arguments" + usage);
  } catch (const po::error& failure) {
    throw UsageError(std::string(info.name) + ": " + failure.what() + usage);
  }
  for (const char* name : info.required) {
    if (values.count(name) == 0) {
      throw UsageError(std::string(info.name) + ": missing " + name + usage);
    }
  }
  return values;
}

}  // namespace

Action Commands::parse(const std::string& name, const std::vector<std::string>& arguments, Context context) {
  const auto& table = commandTable();
  const auto info = std::find_if(table.begin(), table.end(),
                                 [&name](const CommandInfo& candidate) { return name == candidate.name; });
  if (info == table.end()) {
    throw UsageError("unknown command '" + name + "' (try 'kvx-ta --help')");
  }
  if (context == Context::kScript && !info->scriptable) {
    throw UsageError("'" + name + "' cannot run inside a script");
  }
  if (std::find(arguments.begin(), arguments.end(), kHelpFlag) != arguments.end()) {
    const CommandInfo& help = *info;
    return [&help](Session&) { printHelp(help, std::cout); };
  }
  return info->build(Arguments(parseArguments(*info, arguments)));
}

void Commands::printSummary(std::ostream& out) {
  for (const CommandInfo& info : commandTable()) {
    std::string synopsis = std::string(info.name) + " " + info.synopsis;
    synopsis.resize(std::max<size_t>(synopsis.size() + 1, 36), ' ');
    out << "  " << synopsis << info.summary << '\n';
  }
}

}  // namespace kvx::cli
