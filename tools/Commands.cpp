#include "tools/Commands.h"

#include <algorithm>
#include <iostream>
#include <stdexcept>

#include "tools/Demo.h"
#include "tools/Help.h"
#include "tools/Script.h"
#include "tools/Session.h"
#include "tools/UsageError.h"

namespace kvx::cli {
namespace {

// ---- Commands about the session itself ----

Action buildHelp(const Arguments& arguments) {
  if (!arguments.has("COMMAND")) return [](Session&) { Help::program(std::cout); };
  const std::string name = arguments.value("COMMAND");
  const CommandDefinition* definition = Commands::find(name);
  if (definition == nullptr) throw UsageError(Help::unknownCommand(name));
  return [definition](Session&) { Help::command(*definition, std::cout); };
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

const std::vector<CommandDefinition>& commandTable() {
  static const std::vector<CommandDefinition> table = [] {
    std::vector<CommandDefinition> all = accessCommands();
    for (CommandDefinition& definition : transferCommands()) all.push_back(definition);
    for (CommandDefinition& definition : imageCommands()) all.push_back(definition);
    std::vector<CommandDefinition> own{
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
        {"help",
         "[COMMAND]",
         "describe the program, or COMMAND",
         "Describes the program, or COMMAND as 'kvx-ta COMMAND --help' does.",
         {},
         {"COMMAND"},
         {},
         true,
         buildHelp},
    };
    all.insert(all.end(), own.begin(), own.end());
    return all;
  }();
  return table;
}

}  // namespace

Action Commands::parse(const std::string& name, const std::vector<std::string>& arguments, Context context) {
  const CommandDefinition* info = find(name);
  if (info == nullptr) throw UsageError(Help::unknownCommand(name));
  if (context == Context::kScript && !info->scriptable) {
    throw UsageError("'" + name + "' cannot run inside a script");
  }
  if (std::any_of(arguments.begin(), arguments.end(),
                  [](const std::string& word) { return word == "--help" || word == "-h"; })) {
    const CommandDefinition& definition = *info;
    return [&definition](Session&) { Help::command(definition, std::cout); };
  }
  return info->build(info->parse(arguments));
}

const std::vector<CommandDefinition>& Commands::table() { return commandTable(); }

const CommandDefinition* Commands::find(const std::string& name) {
  const auto& table = commandTable();
  const auto definition =
      std::find_if(table.begin(), table.end(),
                   [&name](const CommandDefinition& candidate) { return name == candidate.name; });
  return definition == table.end() ? nullptr : &*definition;
}

}  // namespace kvx::cli
