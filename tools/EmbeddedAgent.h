// A kvx-agent-sim child process on a free loopback port, for runs that name no agent of their
// own. The constructor starts it and waits until it listens; the destructor stops it (SIGTERM,
// then waits), so every way out of kvx-ta, error paths included, stops it too. Should kvx-ta be
// killed outright, the kernel sends the child SIGTERM.
//
// Owns its child. Single-threaded.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "tools/Endpoint.h"

namespace kvx::cli {

class EmbeddedAgent {
 public:
  /// Starts `program --port 0 --quiet` followed by `extraArguments`, and waits until it prints
  /// "listening on ADDRESS:PORT". Throws std::runtime_error when it cannot be started, exits, or
  /// stays silent too long; a child that was started is stopped first.
  EmbeddedAgent(const std::string& program, const std::vector<std::string>& extraArguments = {});
  ~EmbeddedAgent();

  EmbeddedAgent(const EmbeddedAgent&) = delete;
  EmbeddedAgent& operator=(const EmbeddedAgent&) = delete;

  /// Where the child listens.
  const Endpoint& endpoint() const { return m_endpoint; }

  /// The kvx-agent-sim in the directory of the running program.
  static std::string besideThisProgram();

 private:
  /// Reads the child's first stdout line, within the start deadline.
  std::string readReadyLine();
  /// Stops and reaps the child; harmless when there is none.
  void stop();

  pid_t m_pid = -1;
  /// Read end of the child's stdout, kept open while it runs so its writes never fail.
  int m_stdout = -1;
  Endpoint m_endpoint;
};

}  // namespace kvx::cli
