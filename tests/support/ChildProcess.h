// Child processes for tests: ChildProcess starts a program with its stdin, stdout and stderr in
// files that the test holds, so the child never blocks on them and the test can look at its
// output at any time; runProgram runs a program to its end under a deadline. SimProcess and the
// kvx-ta tests are built on them.
//
// Each ChildProcess owns its child and kills and reaps it at the latest when destroyed. Not
// thread-safe: use one instance from one thread at a time; distinct instances and runProgram may
// be used from any threads.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <iosfwd>
#include <string>
#include <vector>

namespace kvx::test {

class ChildProcess {
 public:
  enum class Stderr { kCaptured, kTerminal, kInherited };
  struct Options {
    /// "NAME=value" entries that take precedence over the test's environment.
    std::vector<std::string> environment;
    /// The child's whole stdin.
    std::string input;
    /// kTerminal: a pseudo-terminal, for programs that behave differently on one; what the
    /// child writes there is kept until it is reaped (up to the terminal's buffer, tens of KiB).
    /// kInherited: the test's own stderr, so the child's log lands in the test output.
    Stderr stderrTo = Stderr::kCaptured;
    /// The child leads a process group of its own, so that signal() reaches whatever it starts
    /// too. Without one it stays in the test's group, which an interrupt at the terminal ends.
    bool ownGroup = true;
  };

  /// Starts argv[0] with `argv`. Throws std::runtime_error when it cannot be started.
  ChildProcess(const std::vector<std::string>& argv, const Options& options);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// Sends `signal` to the child, or to its group if it leads one; nothing once it is reaped.
  void signal(int signal);
  /// Reaps the child, waiting for it if `block`. Returns its exit status, or 128 + the signal
  /// number if a signal ended it; -1 while it still runs (only when not `block`).
  int reap(bool block);
  /// The child's process id; -1 once it is reaped.
  pid_t pid() const { return m_pid; }

  /// What the child has written to its stdout so far.
  std::string out() const;
  /// What the child has written to its stderr so far; on a terminal, once the child is reaped.
  std::string err() const;

 private:
  /// A file descriptor closed on destruction.
  struct Fd {
    int fd = -1;
    Fd() = default;
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() { reset(); }
    void reset(int replacement = -1);
  };

  pid_t m_pid = -1;
  bool m_ownGroup;
  int m_status = -1;
  Fd m_out, m_err;
  /// The terminal's child side, held until the child is reaped: a terminal whose last child side
  /// closes may drop what was left unread.
  Fd m_terminal;
  bool m_onTerminal = false;
  std::string m_terminalText;
};

/// How a program run by runProgram ended.
struct ProgramResult {
  /// The exit status, or 128 + the signal number if a signal ended the program.
  int exitCode = -1;
  /// The program ran past the 30 s deadline; it and its process group were killed.
  bool timedOut = false;
  std::string out;
  std::string err;
  std::chrono::milliseconds elapsed{0};
};

/// Runs `argv` to its end, or for at most 30 s. Throws std::runtime_error when it cannot start.
ProgramResult runProgram(const std::vector<std::string>& argv, const ChildProcess::Options& options = {});

/// Exit status, stdout and stderr, for failure messages.
std::ostream& operator<<(std::ostream& out, const ProgramResult& result);

}  // namespace kvx::test
