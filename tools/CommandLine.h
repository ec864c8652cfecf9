// The program's own command line: the options that come before the command, the command's name,
// and the command's arguments left as they are for the command to parse.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <boost/program_options/options_description.hpp>

#include "common/Endpoint.h"

namespace kvx::cli {

/// What the user asked for, before anything is checked against a command.
struct Invocation {
  /// The agent named by --server; none means "start an embedded simulator".
  std::optional<common::Endpoint> server;
  /// --log-config; empty means log4cxx's own lookup, then the stderr default.
  std::string logConfig;
  bool help = false;
  bool version = false;
  /// Empty when none was given.
  std::string command;
  /// Everything after the command, options included: they belong to the command.
  std::vector<std::string> arguments;
};

class CommandLine {
 public:
  /// Parses argv. Program options are recognised only before the command, so
  /// `kvx-ta read --help` asks the command, not the program. Throws UsageError.
  static Invocation parse(int argc, const char* const argv[]);

  /// The program's own options, as help shows them.
  static boost::program_options::options_description options();
};

}  // namespace kvx::cli
