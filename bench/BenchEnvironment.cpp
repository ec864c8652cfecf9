#include "bench/BenchEnvironment.h"

#include <sched.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "common/SimulatorProcess.h"

namespace kvx::bench {
namespace {

BenchEnvironment* g_current = nullptr;
std::atomic<bool> g_failed{false};

/// --quiet: a line per connection on stderr would land in the middle of the results.
std::unique_ptr<kvx::common::SimulatorProcess> startSimulator(std::optional<int> cpu) {
  auto sim = std::make_unique<kvx::common::SimulatorProcess>(
      kvx::common::SimulatorProcess::besideThisProgram(), std::vector<std::string>{"--quiet"});
  if (cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(*cpu, &set);
    if (::sched_setaffinity(sim->pid(), sizeof set, &set) != 0) {
      throw std::runtime_error("cannot pin kvx-agent-sim to CPU " + std::to_string(*cpu) + ": " +
                               std::strerror(errno));
    }
  }
  return sim;
}

}  // namespace

BenchEnvironment::BenchEnvironment(std::optional<int> simCpu)
    : m_firstSim(startSimulator(simCpu)),
      m_secondSim(startSimulator(simCpu)),
      m_first(m_firstSim->endpoint()),
      m_second(m_secondSim->endpoint()) {
  g_current = this;
}

BenchEnvironment::~BenchEnvironment() { g_current = nullptr; }

BenchEnvironment& BenchEnvironment::current() { return *g_current; }

void fail(benchmark::State& state, const std::string& message) {
  g_failed = true;
  state.SkipWithError(message.c_str());
}

bool anyFailed() { return g_failed; }

}  // namespace kvx::bench
