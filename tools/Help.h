// The help texts of kvx-ta: the program's (synopsis, commands, options, exit statuses) and each
// command's (usage, description, options).
#pragma once

#include <iosfwd>
#include <string>

namespace kvx::cli {

struct CommandDefinition;

class Help {
 public:
  static void program(std::ostream& out);
  static void command(const CommandDefinition& definition, std::ostream& out);
  /// The message for a command that does not exist, suggesting the nearest one that does.
  static std::string unknownCommand(const std::string& name);
};

}  // namespace kvx::cli
