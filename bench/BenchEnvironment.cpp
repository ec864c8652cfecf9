#include "bench/BenchEnvironment.h"

#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
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
    : m_simCpu(simCpu),
      m_firstSim(startSimulator(simCpu)),
      m_secondSim(startSimulator(simCpu)),
      m_first(m_firstSim->endpoint()),
      m_second(m_secondSim->endpoint()) {
  g_current = this;
}

BenchEnvironment::~BenchEnvironment() { g_current = nullptr; }

std::vector<Endpoint> BenchEnvironment::agents(size_t count) {
  while (m_manySims.size() < count) m_manySims.push_back(startSimulator(m_simCpu));
  std::vector<Endpoint> endpoints;
  for (size_t i = 0; i < count; ++i) endpoints.push_back(m_manySims[i]->endpoint());
  return endpoints;
}

std::pair<Endpoint, pid_t> BenchEnvironment::agentOnCpu(int cpu) {
  auto& sim = m_pinnedSims[cpu];
  if (!sim) sim = startSimulator(cpu);
  return {sim->endpoint(), sim->pid()};
}

PinnedThread::PinnedThread(int cpu) {
  ::sched_getaffinity(0, sizeof m_saved, &m_saved);
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  ::sched_setaffinity(0, sizeof set, &set);
}

PinnedThread::~PinnedThread() { ::sched_setaffinity(0, sizeof m_saved, &m_saved); }

double processCpuMicroseconds(pid_t pid) {
  // Fields 14 and 15 of /proc/PID/stat, after the parenthesised command name: utime and stime.
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  std::istringstream fields(text.substr(text.rfind(')') + 2));
  std::string field;
  unsigned long long utime = 0;
  unsigned long long stime = 0;
  for (int i = 3; i <= 15 && fields >> field; ++i) {
    if (i == 14) utime = std::stoull(field);
    if (i == 15) stime = std::stoull(field);
  }
  return static_cast<double>(utime + stime) * 1e6 / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

BenchEnvironment& BenchEnvironment::current() { return *g_current; }

void fail(benchmark::State& state, const std::string& message) {
  g_failed = true;
  state.SkipWithError(message.c_str());
}

bool anyFailed() { return g_failed; }

}  // namespace kvx::bench
