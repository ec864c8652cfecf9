#include "tools/Help.h"

#include <algorithm>
#include <ostream>

#include "tools/CommandLine.h"
#include "tools/CommandSpec.h"
#include "tools/Commands.h"

namespace kvx::cli {
namespace {

/// The width of the synopsis column in the list of commands.
constexpr size_t kSynopsisColumn = 36;

}  // namespace

void Help::program(std::ostream& out) {
  out << "Usage: kvx-ta [--server HOST:PORT] [--log-config FILE] COMMAND [ARGS...]\n"
         "\n"
         "Reads and writes a target through the KVX target-access plug-in, the way a debugger\n"
         "host does. Without --server, kvx-ta starts its own simulated agent (kvx-agent-sim)\n"
         "for the run, so each run starts from a fresh target; 'script' runs several commands\n"
         "in one session.\n"
         "\n"
         "Commands:\n";
  for (const CommandSpec& spec : Commands::table()) {
    std::string synopsis = std::string(spec.name) + " " + spec.synopsis;
    synopsis.resize(std::max(synopsis.size() + 1, kSynopsisColumn), ' ');
    out << "  " << synopsis << spec.summary << '\n';
  }
  out << "\n"
      << CommandLine::options() << "\n"
      << "Numbers are decimal or hex with 0x; addresses are 64-bit; values are little-endian.\n"
         "Exit status: 0 done, 1 failed on the target or its connection, 2 usage error.\n";
}

void Help::command(const CommandSpec& spec, std::ostream& out) {
  out << "Usage: " << spec.usage() << "\n\n" << spec.description << "\n\n" << spec.options();
}

}  // namespace kvx::cli
