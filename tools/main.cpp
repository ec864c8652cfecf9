// kvx-ta: a command-line host for the KVX target-access plug-in. It loads the plug-in as a
// debugger host does and reads and writes a target through it.

#include <exception>
#include <iostream>

#include "common/AgentTimeout.h"
#include "common/SimulatorProcess.h"
#include "tools/CommandLine.h"
#include "tools/Commands.h"
#include "tools/Failure.h"
#include "tools/Help.h"
#include "tools/Interrupt.h"
#include "tools/Logging.h"
#include "tools/Output.h"
#include "tools/Session.h"
#include "tools/UsageError.h"
#include "vorn/Exception.h"

namespace {

using namespace kvx::cli;

constexpr int kFailed = 1;
constexpr int kUsage = 2;

void run(const Invocation& invocation, Output& output) {
  if (invocation.version) {
    output.text(std::string("kvx-ta ") + KVX_TA_VERSION + "\n");
    return;
  }
  if (invocation.help || invocation.command.empty()) {
    if (invocation.command.empty() && !invocation.help)
      throw UsageError("no command given (try 'kvx-ta --help')");
    Help::program(std::cout);
    return;
  }
  // Checked before logging is set up and anything is started.
  const Action action =
      Commands::parse(invocation.command, invocation.arguments, Commands::Context::kCommandLine);
  Logging::configure(invocation.logConfig);
  if (invocation.timeoutMs)
    ::setenv(kvx::common::kAgentTimeoutVariable, std::to_string(*invocation.timeoutMs).c_str(), 1);
  Interrupt::install();
  Session session(invocation, output, kvx::common::SimulatorProcess::besideThisProgram());
  action(session);
}

}  // namespace

int main(int argc, char* argv[]) {
  Invocation invocation;
  try {
    invocation = CommandLine::parse(argc, argv);
  } catch (const UsageError& error) {
    std::cerr << "kvx-ta: " << Output::printable(error.what()) << '\n';
    return kUsage;
  }
  Output output(invocation.output);
  // run() owns the session: a failure unwinds it, stopping an embedded simulator, before its
  // message is printed here.
  try {
    run(invocation, output);
    output.finish();
    return 0;
  } catch (const UsageError& error) {
    output.failure(error.what(), output.options().json ? "usage" : "", "");
    return kUsage;
  } catch (const Failure& failure) {
    output.failure(failure.attempted(), failure.reason(), failure.detail());
    return kFailed;
  } catch (const vorn::Exception& error) {
    output.failure(error.getMessage(), "", error.getFile() + ":" + std::to_string(error.getLine()));
    return kFailed;
  } catch (const std::exception& error) {
    output.failure(error.what(), "", "");
    return kFailed;
  }
}
