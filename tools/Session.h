// The run's way to its target: the agent named by --server, or else an embedded simulator. The
// target is opened on first use and kept for the rest of the run, so the commands of a script
// share one process and one agent session, and a command that fails its argument checks, or only
// prints help, starts and reaches nothing.
//
// Owns the embedded simulator and the target. Single-threaded.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/Endpoint.h"

namespace kvx::common {
class SimulatorProcess;
}  // namespace kvx::common

namespace kvx::cli {

class Output;
class Target;
struct Invocation;

class Session {
 public:
  /// The agent is the one --server names; without one, the first use of target() starts the
  /// simulator at `simulatorPath` with the --sim-option options and announces it. Results and
  /// messages go to `output`, which must outlive the session.
  Session(const Invocation& invocation, Output& output, std::string simulatorPath);
  /// Closes the target, then stops the simulator.
  ~Session();

  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// The target, opened on the first call. Throws Failure when the simulator cannot be started
  /// or the agent cannot be reached.
  Target& target();

  Output& output() { return m_output; }
  /// Whether --force allows transfers above the sane bound.
  bool force() const { return m_force; }
  /// How many workers a transfer of `length` bytes uses: --jobs, or kvx-ta's choice.
  unsigned jobsFor(uint64_t length) const;
  /// The agent's endpoint; without --server, the embedded simulator's, started on first use.
  common::Endpoint agentEndpoint();
  /// The global options of a worker on this session's agent.
  std::vector<std::string> workerOptions();
  /// Whether --server named the agent.
  bool hasServer() const { return m_server.has_value(); }
  const std::string& simulatorPath() const { return m_simulatorPath; }

 private:
  std::optional<common::Endpoint> m_server;
  std::vector<std::string> m_simulatorOptions;
  bool m_force;
  std::optional<unsigned> m_jobs;
  std::optional<unsigned> m_timeoutMs;
  Output& m_output;
  std::string m_simulatorPath;
  // Declared in this order so that the target goes before the agent it talks to.
  std::unique_ptr<common::SimulatorProcess> m_embedded;
  std::unique_ptr<Target> m_target;
};

}  // namespace kvx::cli
