// Runs a program as a child process to the end, feeding it stdin and collecting its stdout,
// stderr and exit status, under a deadline: a program that hangs is killed, with its process
// group, and reported as timed out instead of blocking the test. Any thread may run programs.
#pragma once

#include <chrono>
#include <iosfwd>
#include <string>
#include <vector>

namespace kvx::test {

struct ProgramRun {
  std::vector<std::string> arguments;
  /// Written to the child's stdin, which is then closed.
  std::string input;
  /// "NAME=value" entries added to the child's environment.
  std::vector<std::string> environment;
  /// Give the child a terminal as its stderr (the parent reads it); stdout stays a pipe.
  bool stderrOnTerminal = false;
  std::chrono::milliseconds deadline = std::chrono::seconds(30);
};

struct ProgramResult {
  /// The exit status, or -1 when a signal ended the child.
  int exitCode = -1;
  /// The signal that ended the child, or 0.
  int signal = 0;
  bool timedOut = false;
  std::string out;
  std::string err;
  std::chrono::milliseconds elapsed{0};
};

/// Runs `program` as `run` says. Throws std::runtime_error when it cannot be started.
ProgramResult runProgram(const std::string& program, const ProgramRun& run);

/// Exit status, stdout and stderr, for failure messages.
std::ostream& operator<<(std::ostream& out, const ProgramResult& result);

}  // namespace kvx::test
