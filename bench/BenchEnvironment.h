// What the loopback benchmarks run against: two kvx-agent-sim child processes that main() starts
// before any benchmark and stops after the last, more started as benchmarks ask for them, and a
// record of benchmarks that failed, so that the program's exit status reports them.
//
// Set up once on the main thread; afterwards any benchmark thread may read the endpoints and
// report a failure.
#pragma once

#include <sched.h>
#include <sys/types.h>

#include <benchmark/benchmark.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/Endpoint.h"

namespace kvx::common {
class SimulatorProcess;
}

namespace kvx::bench {

using kvx::common::Endpoint;

class BenchEnvironment {
 public:
  /// Starts the two simulators; with `simCpu`, both run on that CPU only. Throws
  /// std::runtime_error when either cannot be started.
  explicit BenchEnvironment(std::optional<int> simCpu);
  /// Stops the simulators.
  ~BenchEnvironment();

  BenchEnvironment(const BenchEnvironment&) = delete;
  BenchEnvironment& operator=(const BenchEnvironment&) = delete;

  /// The environment of this run; only valid while main() holds it.
  static BenchEnvironment& current();

  const Endpoint& firstAgent() const { return m_first; }
  const Endpoint& secondAgent() const { return m_second; }

  /// The endpoints of `count` agents, one kvx-agent-sim each, placed as the two above; started on
  /// first use and kept for the run. Throws std::runtime_error when one cannot be started.
  std::vector<Endpoint> agents(size_t count);

  /// A simulator pinned to `cpu` (0 or 1), started on first use, and its process id. Throws
  /// std::runtime_error when it cannot be started or pinned (a machine with one CPU).
  std::pair<Endpoint, pid_t> agentOnCpu(int cpu);

 private:
  std::optional<int> m_simCpu;
  std::unique_ptr<kvx::common::SimulatorProcess> m_firstSim;
  std::unique_ptr<kvx::common::SimulatorProcess> m_secondSim;
  std::unique_ptr<kvx::common::SimulatorProcess> m_pinnedSims[2];
  std::vector<std::unique_ptr<kvx::common::SimulatorProcess>> m_manySims;
  Endpoint m_first;
  Endpoint m_second;
};

/// Keeps the calling thread on one CPU while it lives, then restores its affinity.
class PinnedThread {
 public:
  explicit PinnedThread(int cpu);
  ~PinnedThread();
  PinnedThread(const PinnedThread&) = delete;
  PinnedThread& operator=(const PinnedThread&) = delete;

 private:
  cpu_set_t m_saved;
};

/// The CPU time a process has used so far, user and system, in microseconds.
double processCpuMicroseconds(pid_t pid);

/// Marks the benchmark as failed with `message`; the program then exits with status 1. The
/// caller leaves its timed loop right after.
void fail(benchmark::State& state, const std::string& message);

/// Whether any benchmark failed.
bool anyFailed();

}  // namespace kvx::bench
