// script, demo, help: commands about the run itself.

#include <iostream>

#include "tools/Help.h"
#include "tools/Script.h"
#include "tools/Session.h"
#include "tools/commands/Commands.h"
#include "tools/commands/Demo.h"
#include "tools/output/Output.h"

namespace kvx::cli {
namespace {

Action buildHelp(const Arguments& arguments) {
  if (!arguments.has("COMMAND")) return [](Session& session) { session.output().text(help::program()); };
  const CommandDefinition* definition = findCommand(arguments.value("COMMAND"));
  if (definition == nullptr) throw bringup::usageError(help::unknownCommand(arguments.value("COMMAND")));
  return [definition](Session& session) { session.output().text(help::command(*definition)); };
}

Action buildScript(const Arguments& arguments) {
  const std::string path = arguments.has("FILE") ? arguments.value("FILE") : std::string();
  return [=](Session& session) { runScript(path, session); };
}

Action buildDemo(const Arguments& /*arguments*/) {
  return [](Session& session) {
    if (session.hasServer())
      session.output().info("the demo starts its own simulated agents; --server is not used");
    session.output().finish();
    Demo(session.simulatorPath(), std::cout).run();
    std::cout.flush();
  };
}

}  // namespace

std::vector<CommandDefinition> sessionCommands() {
  return {
      {"script",
       "[FILE]",
       "run commands from FILE (or stdin), one a line, in one session",
       "Runs the commands in FILE, or on stdin when FILE is absent or '-', one a line and with\n"
       "the same arguments as on the command line, in one session with one agent. Blank lines\n"
       "and words from '#' on are skipped. A FILE is checked whole first: a usage error on any\n"
       "line runs nothing. Stops at the first failure, reported as \"FILE:LINE: message\", with\n"
       "the exit status of that failure.",
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
}

}  // namespace kvx::cli
