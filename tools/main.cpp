// kvx-ta: a command-line host for the KVX target-access plug-in. It loads the plug-in as a
// debugger host does and reads and writes a target through it, by way of the bring-up library.

#include <cstdlib>
#include <exception>
#include <memory>

#include "bringup/Error.h"
#include "bringup/image/ElfSymbols.h"
#include "common/AgentTimeout.h"
#include "tools/CommandLine.h"
#include "tools/CommandTable.h"
#include "tools/Help.h"
#include "tools/Interrupt.h"
#include "tools/Logging.h"
#include "tools/Session.h"
#include "tools/output/Output.h"

namespace {

using namespace kvx::cli;
using kvx::bringup::Error;

/// The exit status of a failure of `kind`.
int exitStatus(Error::Kind kind) {
  switch (kind) {
    case Error::Kind::kUsage:
      return 2;
    case Error::Kind::kInterrupted:
      return 130;
    case Error::Kind::kTarget:
    case Error::Kind::kConnection:
    case Error::Kind::kFile:
      break;
  }
  return 1;
}

/// The status of a program that a closed pipe ended, as a shell reports it (128 + SIGPIPE).
constexpr int kReaderGone = 141;

void run(const Invocation& invocation, Output& output) {
  if (invocation.version) {
    output.text(std::string("kvx-ta ") + KVX_TA_VERSION + "\n");
    return;
  }
  if (invocation.help) {
    output.text(help::program());
    return;
  }
  if (invocation.command.empty()) throw kvx::bringup::usageError("no command given (try 'kvx-ta --help')");
  // Checked before logging is set up and anything is started.
  const std::unique_ptr<kvx::bringup::ElfSymbols> symbols =
      invocation.elf ? std::make_unique<kvx::bringup::ElfSymbols>(*invocation.elf) : nullptr;
  const Action action =
      parseCommand(invocation.command, invocation.arguments, CommandContext::kCommandLine, symbols.get());
  configureLogging(invocation.logConfig);
  if (invocation.timeoutMs) {
    ::setenv(kvx::common::kAgentTimeoutVariable, std::to_string(*invocation.timeoutMs).c_str(), 1);
  }
  interrupt::install();
  Session session(invocation, output, symbols.get());
  action(session);
}

}  // namespace

int main(int argc, char* argv[]) {
  Output output;
  // run() owns the session: a failure unwinds it, stopping an embedded simulator, before its
  // message is printed here.
  try {
    const Invocation invocation = CommandLine::parse(argc, argv);
    output.configure(invocation.output);
    run(invocation, output);
    output.finish();
    return 0;
  } catch (const Error& failure) {
    if (output.readerGone()) return kReaderGone;
    output.failure(failure);
    return exitStatus(failure.kind());
  } catch (const std::exception& bug) {
    // Everything that kvx-ta expects to fail is an Error; anything else is a fault of its own.
    output.failure(
        Error(Error::Kind::kTarget, "kvx-ta failed", std::string("internal error: ") + bug.what()));
    return 1;
  }
}
