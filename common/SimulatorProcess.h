// A kvx-agent-sim child process: started with the caller's options on a free port, ready once it
// has announced where it listens ("listening on ADDRESS:PORT"), and stopped at the latest when
// destroyed. kvx-ta's embedded agent, the tests and the benchmarks all start simulators here.
//
// The child reads nothing (its stdin is /dev/null) and logs to the caller's stderr, or into a
// buffer that a failure to start quotes. The kernel sends the child SIGTERM should the caller
// die, even by SIGKILL, and also when the thread that started it ends (PR_SET_PDEATHSIG follows
// the thread): start it from a thread that outlives it. The child leads a process group of its
// own, which a Ctrl-C at the terminal does not reach. Each instance owns its child.
// Not thread-safe: start, query and stop an instance from one thread; the simulator itself serves
// any number of clients and threads.
#pragma once

#include <sys/types.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "common/Endpoint.h"

namespace kvx::common {

class SimulatorProcess {
 public:
  /// Where the child's stderr goes.
  enum class Stderr {
    kInherit,  ///< to the caller's stderr
    /// into an unbounded in-memory file, quoted when the child fails to start: for a child run
    /// with --quiet, which writes there only why it could not start.
    kCapture,
  };

  /// Why a simulator did not start: the message, with what a captured stderr said at its end,
  /// and the child's exit status (2 when it refused its options; -1 when it never ran).
  class StartFailure : public std::runtime_error {
   public:
    StartFailure(const std::string& message, int exitStatus, std::string said)
        : std::runtime_error(message), m_exitStatus(exitStatus), m_said(std::move(said)) {}
    int exitStatus() const { return m_exitStatus; }
    /// What the child wrote to a captured stderr, its last blank line cut.
    const std::string& said() const { return m_said; }

   private:
    int m_exitStatus;
    std::string m_said;
  };

  /// Starts `program` with `options` after its name and waits until it listens. Throws
  /// StartFailure when it cannot be started, exits first, or stays silent for ten seconds; a
  /// child that was started is stopped first, and a captured stderr ends the message.
  SimulatorProcess(std::string program, std::vector<std::string> options,
                   Stderr stderrMode = Stderr::kInherit);
  /// Stops the simulator as stop() does.
  ~SimulatorProcess();

  SimulatorProcess(const SimulatorProcess&) = delete;
  SimulatorProcess& operator=(const SimulatorProcess&) = delete;

  /// Where the simulator listens, as it announced it.
  const Endpoint& endpoint() const { return m_endpoint; }
  /// The child's process id; -1 once it is stopped.
  pid_t pid() const { return m_pid; }

  /// Sends SIGTERM, waits up to three seconds, then kills. Returns the exit status (0 for a clean
  /// stop), or 128 + the number of the signal that ended it; -1 when it was stopped already.
  int stop();
  /// Kills the simulator with SIGKILL, so it vanishes without closing anything itself.
  void kill();
  /// Kills the simulator and starts it again on the same port with `options`. The simulator
  /// binds with SO_REUSEADDR, so the port is free again at once; should another program take it
  /// meanwhile, this retries for two seconds. False when the port never came free.
  bool restart(std::vector<std::string> options);

  /// The kvx-agent-sim in the directory of the running program, as installed beside kvx-ta.
  static std::string besideThisProgram();

 private:
  /// Forks and executes the program; sets m_pid, m_stdout and, when capturing, m_stderr.
  void spawn(const std::vector<std::string>& options);
  /// What the child wrote to a captured stderr so far, trailing blanks cut; empty
  /// when it is not captured or the child wrote nothing.
  std::string capturedStderr() const;
  /// Reads the child's first stdout line within the start deadline.
  std::string readReadyLine();
  /// Reaps the child, waiting at most `seconds`; its status as stop() gives it, -1 if it runs on.
  int reap(int seconds);

  std::string m_program;
  Stderr m_stderrMode;
  pid_t m_pid = -1;
  /// Read end of the child's stdout, kept open while it runs so that its writes never fail.
  int m_stdout = -1;
  /// The in-memory file behind a captured stderr, replaced at each start; -1 when inherited.
  int m_stderr = -1;
  Endpoint m_endpoint;
};

}  // namespace kvx::common
