// The program's own command line: the global options, the command's name, and the command's
// arguments, left for the command to check. Global options may come before or after the command;
// after it, an option of the command's own by the same name (wait --timeout) is the command's.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <boost/program_options/options_description.hpp>

#include "common/Endpoint.h"
#include "tools/output/Output.h"

namespace kvx::cli {

/// What the user asked for, before anything is checked against a command.
struct Invocation {
  /// The agent named by --server; none means "start an embedded simulator".
  std::optional<common::Endpoint> server;
  /// --log-config; empty means log4cxx's own lookup, then the stderr default.
  std::string logConfig;
  Output::Options output;
  /// --force: transfers above the sane bound are allowed.
  bool force = false;
  /// --timeout: the agent library's deadline for each call, in milliseconds.
  std::optional<unsigned> timeoutMs;
  /// --sim-option, in order: options for the embedded simulator.
  std::vector<std::string> simulatorOptions;
  /// --jobs: worker processes for a transfer; none given means kvx-ta's choice.
  std::optional<unsigned> jobs;
  /// --trace: every agent call on stderr.
  bool trace = false;
  /// --elf, or KVX_TA_ELF: the firmware's ELF file, whose symbols addresses may name.
  std::optional<std::string> elf;
  bool help = false;
  bool version = false;
  /// Empty when none was given.
  std::string command;
  /// The command's words: everything after its name but the global options.
  std::vector<std::string> arguments;
};

class CommandLine {
 public:
  /// Parses argv. Throws a usage Error.
  static Invocation parse(int argc, const char* const argv[]);

  /// The program's own options, as help shows them.
  static boost::program_options::options_description options();

  /// The most --jobs takes.
  static constexpr unsigned kMaxJobs = 64;
};

}  // namespace kvx::cli
