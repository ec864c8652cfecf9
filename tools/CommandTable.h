// The table of kvx-ta's commands: how each is described (its synopsis, help and options), how the
// words given to it are checked (positional fields by their placeholders, "ADDR"; options by
// their long names, "out"), and what it does once they passed. A command checks its arguments
// when it is parsed, before anything is started or reached, and runs later against the run's
// session. The families of commands fill the table, each from a file of its own in commands/.
// Read-only once built.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <boost/program_options/options_description.hpp>
#include <boost/program_options/variables_map.hpp>

#include "bringup/Addresses.h"

namespace kvx::cli {

class Session;

/// A command whose arguments passed their checks, ready to run. Throws bringup::Error.
using Action = std::function<void(Session&)>;

/// An option of a command: a switch when valueName is null; left out of help when description is
/// null (one that only kvx-ta gives its workers).
struct Flag {
  const char* name;
  const char* valueName;
  const char* description;
};

/// The checked words of one command, by name.
class Arguments {
 public:
  Arguments(boost::program_options::variables_map values, const bringup::ElfSymbols* symbols)
      : m_values(std::move(values)), m_symbols(symbols) {}

  bool has(const char* name) const { return m_values.count(name) != 0; }
  const std::string& value(const char* name) const { return m_values[name].as<std::string>(); }
  /// The words of the field that takes the rest of the positional words.
  const std::vector<std::string>& values(const char* name) const {
    return m_values[name].as<std::vector<std::string>>();
  }
  /// The field `name` as an address: a number, or with --elf a symbol; see bringup::parseAddress.
  bringup::ElfSymbols::Location address(const char* name, const std::string& what = "address") const {
    return bringup::parseAddress(value(name), m_symbols, what);
  }
  const bringup::ElfSymbols* symbols() const { return m_symbols; }

 private:
  boost::program_options::variables_map m_values;
  const bringup::ElfSymbols* m_symbols;
};

struct CommandDefinition {
  const char* name;
  /// The arguments as the synopsis shows them.
  const char* synopsis;
  std::string summary;
  std::string description;
  std::vector<const char*> required;
  std::vector<const char*> optional;
  std::vector<Flag> flags;
  /// Whether a script may run it.
  bool scriptable;
  /// Checks the arguments further and returns the action; throws a usage Error.
  Action (*build)(const Arguments& arguments);
  /// Whether the last optional field takes every positional word that is left ("VALUE...").
  bool rest = false;

  /// "kvx-ta NAME SYNOPSIS".
  std::string usage() const;
  /// The options: --help and the flags, the hidden ones too when `hidden`, as parsing needs them
  /// and help does not show them.
  boost::program_options::options_description options(bool hidden = false) const;
  /// Checks `words` against the fields and flags, addresses against `symbols` when given; throws
  /// a usage Error naming the command.
  Arguments parse(const std::vector<std::string>& words, const bringup::ElfSymbols* symbols) const;
};

/// Where a command comes from: a script runs neither `script`, `shell` nor `demo`; the shell
/// runs what a script runs, and `script FILE`.
enum class CommandContext { kCommandLine, kScript, kShell };

/// Whether `definition` may run in `context`.
bool commandRunsIn(const CommandDefinition& definition, CommandContext context);

/// Every command, in the order help lists them.
const std::vector<CommandDefinition>& commandTable();
/// The command called `name`, or null.
const CommandDefinition* findCommand(const std::string& name);
/// The command `name` with `arguments`, checked, addresses against `symbols` when given. With
/// --help among the arguments, an action that prints the command's help and needs no target.
/// Throws a usage Error.
Action parseCommand(const std::string& name, const std::vector<std::string>& arguments,
                    CommandContext context, const bringup::ElfSymbols* symbols);

}  // namespace kvx::cli
