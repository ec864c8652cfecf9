#include "tools/Session.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <utility>

#include "common/SimulatorProcess.h"
#include "tools/CommandLine.h"
#include "tools/Failure.h"
#include "tools/Output.h"
#include "tools/Target.h"

namespace kvx::cli {
namespace {

/// Whether `host` names this machine: a loopback address or "localhost".
bool isLoopback(const std::string& host) {
  in_addr v4{};
  in6_addr v6{};
  if (::inet_pton(AF_INET, host.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
  if (::inet_pton(AF_INET6, host.c_str(), &v6) == 1) return IN6_IS_ADDR_LOOPBACK(&v6);
  return host == "localhost";
}

}  // namespace

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
  // Measured (docs/performance.md): against an agent 200 us away four workers move 3.1 times as
  // much as one, eight 5.9 times; on loopback extra workers share the CPUs with the agent and
  // gain little or lose. A short transfer is not worth starting workers for.
  constexpr unsigned kRemoteJobs = 4;
  constexpr uint64_t kParallelFrom = 64 * 1024;
  if (m_jobs) return *m_jobs;
  return length >= kParallelFrom && m_server && !isLoopback(m_server->host) ? kRemoteJobs : 1;
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
