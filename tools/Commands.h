// The commands of kvx-ta. Each checks its arguments when it is parsed, before anything is started
// or reached, and runs later against the run's session; `script` parses and runs further commands
// one line at a time in the same session.
#pragma once

#include <string>
#include <vector>

#include "tools/CommandDefinition.h"

namespace kvx::cli {

class Commands {
 public:
  /// Where a command comes from; a script cannot run `script` or `demo`.
  enum class Context { kCommandLine, kScript };

  /// The command `name` with `arguments`, checked. With --help among the arguments, an action
  /// that prints the command's help and needs no target. Throws UsageError.
  static Action parse(const std::string& name, const std::vector<std::string>& arguments, Context context);

  /// The command called `name`, or null.
  static const CommandDefinition* find(const std::string& name);

  /// Every command, in the order help lists them.
  static const std::vector<CommandDefinition>& table();
};

// The families of commands, each in a file of its own, in the order help lists them.
/// read, write, wait, reg, regs, reserve, unreserve, unreserve-all: single accesses and
/// reservations.
std::vector<CommandDefinition> accessCommands();
/// dump, fill, crc32: ranges of any length, moved in accesses of at most 8 bytes.
std::vector<CommandDefinition> transferCommands();
/// load, verify: image files (raw, Intel HEX, S-record, ELF) to and against target memory.
std::vector<CommandDefinition> imageCommands();

}  // namespace kvx::cli
