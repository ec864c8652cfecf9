#include "tools/Session.h"

#include <utility>

#include "common/SimulatorProcess.h"
#include "tools/CommandLine.h"
#include "tools/Failure.h"
#include "tools/Output.h"
#include "tools/Target.h"

namespace kvx::cli {

Session::Session(const Invocation& invocation, Output& output, std::string simulatorPath)
    : m_server(invocation.server),
      m_simulatorOptions(invocation.simulatorOptions),
      m_force(invocation.force),
      m_jobs(invocation.jobs),
      m_timeoutMs(invocation.timeoutMs),
      m_output(output),
      m_simulatorPath(std::move(simulatorPath)) {}

Session::~Session() {
  m_target.reset();
  m_embedded.reset();
}

unsigned Session::jobsFor(uint64_t length) const {
  // Measured (docs/performance.md): against a remote agent four workers move about four times as
  // much; on loopback they gain less, but never lose. A short transfer is not worth the start.
  constexpr unsigned kDefaultJobs = 4;
  constexpr uint64_t kParallelFrom = 64 * 1024;
  return m_jobs ? *m_jobs : length >= kParallelFrom ? kDefaultJobs : 1;
}

std::vector<std::string> Session::workerOptions() {
  std::vector<std::string> options{"--worker", "--server", agentEndpoint().text()};
  if (m_timeoutMs) options.insert(options.end(), {"--timeout", std::to_string(*m_timeoutMs)});
  if (m_force) options.push_back("--force");
  return options;
}

Target& Session::target() {
  if (!m_target) m_target = std::make_unique<Target>(agentEndpoint());
  return *m_target;
}

common::Endpoint Session::agentEndpoint() {
  if (m_server) return *m_server;
  if (!m_embedded) {
    std::vector<std::string> options{"--quiet"};
    options.insert(options.end(), m_simulatorOptions.begin(), m_simulatorOptions.end());
    try {
      m_embedded = std::make_unique<common::SimulatorProcess>(m_simulatorPath, options);
    } catch (const std::runtime_error& failure) {
      throw Failure("cannot start the simulated agent", failure.what());
    }
    const std::string where = m_embedded->endpoint().text();
    m_output.info("started kvx-agent-sim on " + where, {{"simulator", where}});
  }
  return m_embedded->endpoint();
}

}  // namespace kvx::cli
