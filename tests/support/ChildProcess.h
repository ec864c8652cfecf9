// Runs a program, or a function in a forked child, to its end for a test and hands back how it
// ended. A program's stdin, stdout and stderr are files, so it never blocks on them. A watchdog
// kills the child, with everything it started, should it run past 30 s. May be called from any
// thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <iosfwd>
#include <optional>
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
///
/// With `interruptAfter`, the program is interrupted as Ctrl-C at a terminal does it: SIGINT to
/// its process group, once the program has had a SIGINT handler for that long and every process
/// of the group has one. A signal sent by the clock alone could come, on a loaded machine, before
/// the handler is in place and end the program by the default action instead.
ProgramResult runProgram(const std::vector<std::string>& argv, const std::string& input = "",
                         const std::vector<std::string>& environment = {},
                         std::optional<std::chrono::milliseconds> interruptAfter = std::nullopt);

/// Runs `body` in a child that fork() makes, which ends through exit() with what `body` returns,
/// so that the libraries' destructors run there as in any child that ends. For code that must
/// live through a host's fork; `body` must not use the test framework, whose results are the
/// parent's. The destructor joins a child not joined yet.
class ForkedChild {
 public:
  explicit ForkedChild(const std::function<int()>& body);
  ~ForkedChild();

  ForkedChild(const ForkedChild&) = delete;
  ForkedChild& operator=(const ForkedChild&) = delete;

  /// Waits for the child to end: its exit status, or 128 + the signal that ended it; out and err
  /// stay empty.
  ProgramResult join();

 private:
  pid_t m_pid = -1;
};

/// Exit status, stdout and stderr, for failure messages.
std::ostream& operator<<(std::ostream& out, const ProgramResult& result);

}  // namespace kvx::test
