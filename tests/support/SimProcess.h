// A kvx-agent-sim child process for tests: starts the simulator with the caller's arguments,
// waits for it to report its port, and stops it again at the latest when destroyed.
//
// Each instance owns its child. Not thread-safe: create, query and stop an instance from one
// thread (the simulator itself may be used from any number of threads and clients).
//
//   SimProcess sim({"--deny", "0x1000:16"});
//   start_session(sim.address().c_str(), sim.port());
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kvx::test {

class ChildProcess;

class SimProcess {
 public:
  /// Starts the simulator with `arguments` after the program name (the simulator's own defaults
  /// apply: 127.0.0.1, a free port) and waits until it prints its "listening on" line. Throws
  /// std::runtime_error when it cannot be started, exits, or stays silent for ten seconds; a
  /// child that was started is then killed first. Its stderr is the test's.
  explicit SimProcess(std::vector<std::string> arguments = {});
  /// Stops the simulator as stop() does, unless that was done already.
  ~SimProcess();
  SimProcess(const SimProcess&) = delete;
  SimProcess& operator=(const SimProcess&) = delete;

  /// The address the simulator listens on, as it reported it, without brackets ("127.0.0.1", "::1").
  const std::string& address() const { return m_address; }
  /// The port the simulator listens on.
  uint16_t port() const { return m_port; }
  /// The child's process id; -1 after stop() or kill().
  pid_t pid() const;

  /// Sends SIGTERM and reaps the child. Returns its exit status (0 for a clean shutdown), or
  /// 128 + the signal number if a signal ended it; -1 when it was already stopped.
  int stop();
  /// Sends SIGKILL and reaps the child, so it vanishes without closing anything itself.
  void kill();
  /// Kills the simulator and starts a new one on the same port with `arguments`. The simulator
  /// binds with SO_REUSEADDR, so the port is free again at once; should another program take
  /// it meanwhile, this retries for two seconds. Returns false when it never came free.
  bool restart(std::vector<std::string> arguments);

 private:
  std::unique_ptr<ChildProcess> m_child;
  std::string m_address;
  uint16_t m_port = 0;
};

}  // namespace kvx::test
