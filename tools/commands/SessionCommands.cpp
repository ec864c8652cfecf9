// script, shell, sleep, reconnect, demo, help: commands about the run itself.

#include <unistd.h>

#include <chrono>
#include <iostream>

#include "bringup/Error.h"
#include "bringup/Numbers.h"
#include "bringup/Target.h"
#include "tools/Help.h"
#include "tools/Interrupt.h"
#include "tools/Script.h"
#include "tools/Session.h"
#include "tools/Shell.h"
#include "tools/commands/Commands.h"
#include "tools/commands/Demo.h"
#include "tools/output/Output.h"

namespace kvx::cli {
namespace {

/// The longest sleep: an hour. A longer one is far more likely a slip than a wish.
constexpr uint64_t kMaxSleepMs = 3600 * 1000;

Action buildHelp(const Arguments& arguments) {
  if (!arguments.has("COMMAND")) return [](Session& session) { session.output().text(help::program()); };
  const CommandDefinition* definition = findCommand(arguments.value("COMMAND"));
  if (definition == nullptr) throw bringup::usageError(help::unknownCommand(arguments.value("COMMAND")));
  return [definition](Session& session) { session.output().text(help::command(*definition)); };
}

Action buildScript(const Arguments& arguments) {
  const std::string path = arguments.has("FILE") ? arguments.value("FILE") : std::string();
  return [=](Session& session) {
    const bool fromStdin = path.empty() || path == "-";
    if (fromStdin && shellRunning()) {
      throw bringup::usageError("'script' inside the shell needs a FILE: stdin is the shell's");
    }
    if (fromStdin && ::isatty(STDIN_FILENO)) return runShell(session);
    runScript(path, session);
  };
}

Action buildShell(const Arguments& /*arguments*/) { return &runShell; }

Action buildSleep(const Arguments& arguments) {
  const uint64_t ms = bringup::parseNumber(arguments.value("MS"), "duration");
  if (ms > kMaxSleepMs) {
    throw bringup::usageError("invalid duration '" + arguments.value("MS") + "' (at most " +
                              std::to_string(kMaxSleepMs) + " ms, an hour)");
  }
  return [ms](Session& /*session*/) { interrupt::sleep(std::chrono::milliseconds(ms)); };
}

Action buildReconnect(const Arguments& /*arguments*/) {
  return [](Session& session) {
    session.target().reconnect();
    session.output().info("the next access opens a new session with the agent at " +
                          session.agentEndpoint().text());
  };
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
       "the exit status of that failure. Without FILE (or with '-') on a terminal, it is the\n"
       "interactive 'shell'.",
       {},
       {"FILE"},
       {},
       false,
       buildScript},
      {"shell",
       "",
       "type commands at a prompt; a failure does not end it",
       "Reads commands one a line, as 'script' does, and runs them in one session with one\n"
       "agent; a failed command prints its error, and the shell goes on. On a terminal it shows\n"
       "a prompt and edits the line (emacs keys, or those of ~/.editrc), keeps the lines typed\n"
       "in ~/.kvx_ta_history, and completes with Tab the names of commands, of files, of\n"
       "registers after 'reg', and, with --elf, of symbols where an address is taken. Ctrl-C\n"
       "stops the command in progress, or abandons the line being typed; Ctrl-D, 'quit' or\n"
       "'exit' leaves, with exit status 0. When the session with the agent is lost (the agent\n"
       "was reset), 'reconnect' opens a new one. 'script FILE' runs FILE as a script, which\n"
       "stops at its first failure; 'shell' and 'demo' do not run inside the shell.\n"
       "Without a terminal the lines come from stdin, with no prompt, and the exit status is\n"
       "that of the first failure, as 'script' would have ended, or 0 when none failed.",
       {},
       {},
       {},
       false,
       buildShell},
      {"sleep",
       "MS",
       "wait MS milliseconds (at most an hour); Ctrl-C ends the wait",
       "Waits MS milliseconds, at most 3600000 (an hour), touching nothing; for a script that\n"
       "gives the target time. Ctrl-C ends the wait at once.",
       {"MS"},
       {},
       {},
       true,
       buildSleep},
      {"reconnect",
       "",
       "open a new session with the agent, after it was reset",
       "Makes the next access open a new session with the agent, for an agent that was reset\n"
       "or restarted and lost the session that a script or the shell had with it.",
       {},
       {},
       {},
       true,
       buildReconnect},
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
