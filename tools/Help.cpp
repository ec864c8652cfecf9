#include "tools/Help.h"

#include <algorithm>
#include <sstream>
#include <vector>

#include "tools/CommandLine.h"
#include "tools/CommandTable.h"

namespace kvx::cli::help {
namespace {

/// The width of the synopsis column in the list of commands.
constexpr size_t kSynopsisColumn = 36;

/// The number of single-character insertions, deletions and substitutions between `a` and `b`.
size_t editDistance(const std::string& a, const std::string& b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

}  // namespace

std::string unknownCommand(const std::string& name) {
  // Two slips at most, and fewer than the name has letters: "rd" is no typing error of "read".
  const CommandDefinition* nearest = nullptr;
  size_t best = 3;
  for (const CommandDefinition& definition : commandTable()) {
    const size_t distance = editDistance(name, definition.name);
    if (distance < best && distance < name.size()) {
      best = distance;
      nearest = &definition;
    }
  }
  return "unknown command '" + name + "'" +
         (nearest != nullptr ? " (did you mean '" + std::string(nearest->name) + "'?)"
                             : " (try 'kvx-ta --help')");
}

std::string program() {
  std::ostringstream out;
  out << "Usage: kvx-ta [OPTIONS] COMMAND [ARGS...]\n"
         "\n"
         "Reads and writes a target through the KVX target-access plug-in, the way a debugger\n"
         "host does. Without --server, kvx-ta starts its own simulated agent (kvx-agent-sim)\n"
         "for the run, so each run starts from a fresh target; 'script' runs several commands\n"
         "in one session. 'kvx-ta help COMMAND' describes a command. Options may come before\n"
         "or after the command.\n"
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
