// A kvx-agent-sim child process for end-to-end tests: starts the simulator with the caller's
// arguments, waits for it to report its port, and stops it again at the latest when destroyed.
//
// Each instance owns its child. Not thread-safe: create, query and stop an instance from one
// thread (the simulator itself may be used from any number of threads and clients).
//
//   SimProcess sim({"--deny", "0x1000:16"});
//   start_session(sim.address().c_str(), sim.port());
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace kvx::test {

class SimProcess {
 public:
  /// Starts the simulator with `arguments` after the program name (the simulator's own defaults
  /// apply: 127.0.0.1, a free port) and waits until it prints its "listening on" line. Throws
  /// std::runtime_error when it cannot be started, exits, or stays silent past `startDeadline`;
  /// a child that was started is then killed first.
  explicit SimProcess(std::vector<std::string> arguments = {},
                      std::chrono::milliseconds startDeadline = std::chrono::seconds(10));

  /// Stops the simulator as stop() does, unless that was done already.
  ~SimProcess();

  SimProcess(const SimProcess&) = delete;
  SimProcess& operator=(const SimProcess&) = delete;

  /// The address the simulator listens on, as it reported it, without brackets ("127.0.0.1", "::1").
  const std::string& address() const { return m_address; }
  /// The port the simulator listens on.
  uint16_t port() const { return m_port; }
  /// The child's process id; valid until stop() or kill().
  pid_t pid() const { return m_pid; }

  /// Sends SIGTERM and reaps the child. Returns its exit status (0 for a clean shutdown), or
  /// 128 + the signal number if a signal ended it; -1 when it was already stopped.
  int stop();
  /// Sends SIGKILL and reaps the child, so it vanishes without closing anything itself. Does
  /// nothing when it was already stopped.
  void kill();

  /// The simulator this build produced.
  static const char* executable();

 private:
  /// Reads the first stdout line of the child, or throws when none comes by the deadline.
  std::string readFirstLine(std::chrono::milliseconds deadline);
  int reap();

  pid_t m_pid = -1;
  int m_stdout = -1;  ///< read end of the child's stdout, kept open so its writes never fail
  std::string m_address;
  uint16_t m_port = 0;
};

}  // namespace kvx::test
