// kvx-ta: a command-line host for the KVX target-access plug-in. It loads the plug-in as a
// debugger host does and reads and writes a target through it.

#include <exception>
#include <iostream>

#include "common/SimulatorProcess.h"
#include "tools/CommandLine.h"
#include "tools/Commands.h"
#include "tools/Help.h"
#include "tools/Logging.h"
#include "tools/Session.h"
#include "tools/UsageError.h"
#include "vorn/Exception.h"

namespace {

constexpr int kFailed = 1;
constexpr int kUsage = 2;

int run(int argc, const char* const argv[]) {
  using namespace kvx::cli;
  const Invocation invocation = CommandLine::parse(argc, argv);
  if (invocation.version) {
    std::cout << "kvx-ta " << KVX_TA_VERSION << '\n';
    return 0;
  }
  if (invocation.help) {
    Help::program(std::cout);
    return 0;
  }
  if (invocation.command.empty()) {
    throw UsageError("no command given (try 'kvx-ta --help')");
  }
  // Checked before logging is set up and anything is started.
  const Action action =
      Commands::parse(invocation.command, invocation.arguments, Commands::Context::kCommandLine);
  Logging::configure(invocation.logConfig);
  Session session(invocation.server, kvx::common::SimulatorProcess::besideThisProgram());
  action(session);
  return 0;
}

}  // namespace

int main(int argc, char* argv[]) {
  // run() owns the session: a failure unwinds it, stopping an embedded simulator, before its
  // message is printed here.
  try {
    return run(argc, argv);
  } catch (const kvx::cli::UsageError& error) {
    std::cerr << "kvx-ta: " << error.what() << '\n';
    return kUsage;
  } catch (const vorn::Exception& error) {
    std::cerr << "kvx-ta: " << error.what() << " (" << error.getFile() << ":" << error.getLine() << ")\n";
    return kFailed;
  } catch (const std::exception& error) {
    std::cerr << "kvx-ta: " << error.what() << '\n';
    return kFailed;
  }
}
