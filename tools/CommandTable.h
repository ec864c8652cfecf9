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
  explicit Arguments(boost::program_options::variables_map values) : m_values(std::move(values)) {}

  bool has(const char* name) const { return m_values.count(name) != 0; }
  const std::string& value(const char* name) const { return m_values[name].as<std::string>(); }

 private:
  boost::program_options::variables_map m_values;
};

struct CommandDefinition {
  const char* name;
  /// The arguments as the synopsis shows them.
  const char* synopsis;
  const char* summary;
  std::string description;
  std::vector<const char*> required;
  std::vector<const char*> optional;
  std::vector<Flag> flags;
  /// Whether a script may run it.
  bool scriptable;
  /// Checks the arguments further and returns the action; throws a usage Error.
  Action (*build)(const Arguments& arguments);

  /// "kvx-ta NAME SYNOPSIS".
  std::string usage() const;
  /// The options: --help and the flags, the hidden ones too when `hidden`, as parsing needs them
  /// and help does not show them.
  boost::program_options::options_description options(bool hidden = false) const;
  /// Checks `words` against the fields and flags; throws a usage Error naming the command.
  Arguments parse(const std::vector<std::string>& words) const;
};

/// Where a command comes from; a script cannot run `script` or `demo`.
enum class CommandContext { kCommandLine, kScript };

/// Every command, in the order help lists them.
const std::vector<CommandDefinition>& commandTable();
/// The command called `name`, or null.
const CommandDefinition* findCommand(const std::string& name);
/// The command `name` with `arguments`, checked. With --help among the arguments, an action that
/// prints the command's help and needs no target. Throws a usage Error.
Action parseCommand(const std::string& name, const std::vector<std::string>& arguments,
                    CommandContext context);

}  // namespace kvx::cli
