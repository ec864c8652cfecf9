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

#include "bringup/transfer/Transfer.h"
#include "common/Endpoint.h"

namespace kvx::common {
class SimulatorProcess;
}  // namespace kvx::common

namespace kvx::bringup {
class ElfSymbols;
class Target;
}  // namespace kvx::bringup

namespace kvx::cli {

class Output;
struct Invocation;

class Session {
 public:
  /// The agent is the one --server names; without one, the first use of target() starts the
  /// simulator beside this program with the --sim-option options and announces it. Results and
  /// messages go to `output`, which must outlive the session. With --trace, every agent call from
  /// now on goes to `output` too.
  Session(const Invocation& invocation, Output& output, const bringup::ElfSymbols* symbols);
  /// Closes the target, then stops the simulator.
  ~Session();

  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// The target, opened on the first call. Throws Error when the simulator cannot be started or
  /// the agent cannot be reached.
  bringup::Target& target();
  Output& output() { return m_output; }
  /// The firmware's symbols, when --elf named its ELF file; null otherwise. Owned by the caller.
  const bringup::ElfSymbols* symbols() const { return m_symbols; }

  /// A transfer of `length` bytes on this session's target, reporting to `progress` and stopped
  /// by Ctrl-C: in this process, or split between workers as --jobs (or kvx-ta's choice) says.
  bringup::Transfer transfer(bringup::Progress& progress, uint64_t length, unsigned width = 0);

  /// The agent's endpoint; without --server, the embedded simulator's, started on first use.
  common::Endpoint agentEndpoint();
  /// Whether --force allows transfers above the sane bound.
  bool force() const { return m_force; }
  /// Whether --server named the agent.
  bool hasServer() const { return m_server.has_value(); }
  /// The kvx-agent-sim beside this program.
  std::string simulatorPath() const;

 private:
  unsigned jobsFor(uint64_t length) const;

  std::optional<common::Endpoint> m_server;
  std::vector<std::string> m_simulatorOptions;
  bool m_force;
  bool m_worker;
  std::optional<unsigned> m_jobs;
  std::optional<unsigned> m_timeoutMs;
  Output& m_output;
  const bringup::ElfSymbols* m_symbols;
  // Declared in this order so that the target goes before the agent it talks to.
  std::unique_ptr<common::SimulatorProcess> m_embedded;
  std::unique_ptr<bringup::Target> m_target;
};

}  // namespace kvx::cli
