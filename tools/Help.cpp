#include "tools/Help.h"

#include <algorithm>
#include <sstream>
#include <vector>

#include "bringup/Text.h"
#include "tools/CommandLine.h"
#include "tools/CommandTable.h"

namespace kvx::cli::help {
namespace {

/// The width of the synopsis column in the list of commands.
constexpr size_t kSynopsisColumn = 36;

}  // namespace

std::string unknownCommand(const std::string& name) {
  std::vector<std::string> names;
  for (const CommandDefinition& definition : commandTable()) names.emplace_back(definition.name);
  const std::vector<std::string> nearest = bringup::nearMisses(name, names, 1);
  return "unknown command '" + name + "'" +
         (!nearest.empty() ? " (did you mean '" + nearest.front() + "'?)" : " (try 'kvx-ta --help')");
}

std::string program() {
  std::ostringstream out;
  out << "Usage: kvx-ta [OPTIONS] COMMAND [ARGS...]\n"
         "\n"
         "Reads and writes a target through the KVX target-access plug-in, the way a debugger\n"
         "host does. Without --server, kvx-ta starts its own simulated agent (kvx-agent-sim)\n"
         "for the run, so each run starts from a fresh target; 'script' and 'shell' run several\n"
         "commands in one session. 'kvx-ta help COMMAND' describes a command. Options may come\n"
         "before or after the command.\n"
         "\n"
         "Commands:\n";
  for (const CommandDefinition& definition : commandTable()) {
    std::string synopsis = std::string(definition.name) + " " + definition.synopsis;
    synopsis.resize(std::max(synopsis.size() + 1, kSynopsisColumn), ' ');
    out << "  " << synopsis << definition.summary << '\n';
  }
  out << "\n"
      << CommandLine::options() << "\n"
      << "Numbers are decimal (no leading zero) or hex with 0x; addresses are 64-bit; values are\n"
         "little-endian.\n"
         "Exit status: 0 done; 1 failed on the target, its connection, a file or the output;\n"
         "2 usage error; 130 interrupted. A reader that closes the output pipe ends kvx-ta quietly.\n";
  return out.str();
}

std::string command(const CommandDefinition& definition) {
  std::ostringstream out;
  out << "Usage: " << definition.usage() << "\n\n"
      << definition.description << "\n\n"
      << definition.options();
  return out.str();
}

}  // namespace kvx::cli::help
