// Runs a program to its end for a test and hands back what it printed and how it ended. The
// program's stdin, stdout and stderr are files, so it never blocks on them; a watchdog kills it,
// with everything it started, should it run past 30 s. May be called from any thread.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace kvx::test {

struct ProgramResult {
  /// The exit status, or 128 + the number of the signal that ended the program.
  int exitCode = -1;
  /// The program ran past the deadline and was killed.
  bool timedOut = false;
  std::string out;
  std::string err;
};

/// Runs argv[0] with `argv`, `input` as its whole stdin and the "NAME=value" entries of
/// `environment` ahead of the test's own. A program that cannot be started exits with 127.
ProgramResult runProgram(const std::vector<std::string>& argv, const std::string& input = "",
                         const std::vector<std::string>& environment = {});

/// Exit status, stdout and stderr, for failure messages.
std::ostream& operator<<(std::ostream& out, const ProgramResult& result);

}  // namespace kvx::test
