// The help texts of kvx-ta: the program's (synopsis, commands, options, exit statuses) and each
// command's (usage, description, options).
#pragma once

#include <string>

namespace kvx::cli {

struct CommandDefinition;

namespace help {

/// The program's help: synopsis, commands, options, exit statuses.
std::string program();
/// A command's help: usage, description, options.
std::string command(const CommandDefinition& definition);
/// The message for a command that does not exist, suggesting the nearest one that does.
std::string unknownCommand(const std::string& name);

}  // namespace help

}  // namespace kvx::cli
