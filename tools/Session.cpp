#include "tools/Session.h"

#include <algorithm>

#include "bringup/AgentCalls.h"
#include "bringup/Error.h"
#include "bringup/Target.h"
#include "bringup/transfer/WorkerMessages.h"
#include "bringup/transfer/Workers.h"
#include "common/Programs.h"
#include "common/SimulatorProcess.h"
#include "tools/CommandLine.h"
#include "tools/Interrupt.h"
#include "tools/output/Output.h"

namespace kvx::cli {
namespace {

/// The name of the process that kvx-ta asks the plug-in for.
const char* const kProcessName = "kvx-ta";
/// What kvx-agent-sim exits with when it refuses its options.
constexpr int kSimulatorUsageStatus = 2;

}  // namespace

Session::Session(const Invocation& invocation, Output& output, const bringup::ElfSymbols* symbols)
    : m_server(invocation.server),
      m_simulatorOptions(invocation.simulatorOptions),
      m_force(invocation.force),
      m_worker(invocation.output.worker),
      m_jobs(invocation.jobs),
      m_timeoutMs(invocation.timeoutMs),
      m_output(output),
      m_symbols(symbols) {
  if (invocation.trace) {
    bringup::observeAgentCalls([&output](const bringup::AgentCall& call) { output.trace(call); });
  }
}

Session::~Session() {
  m_target.reset();
  m_embedded.reset();
  bringup::observeAgentCalls(nullptr);
}

std::string Session::simulatorPath() const { return common::besideThisProgram("kvx-agent-sim"); }

unsigned Session::jobsFor(uint64_t length) const {
  // A worker does its part alone.
  if (m_worker) return 1;
  if (m_jobs) return *m_jobs;
  return m_server ? bringup::defaultJobs(m_server->host, length) : 1;
}

bringup::Transfer Session::transfer(bringup::Progress& progress, uint64_t length, unsigned width) {
  bringup::Transfer::Options options;
  options.force = m_force;
  options.width = width;
  options.worker = m_worker;
  options.jobs = jobsFor(length);
  if (options.jobs > 1) {
    options.workers = bringup::WorkerLaunch{common::thisProgram(),
                                            bringup::workerOptions(agentEndpoint(), m_timeoutMs, m_force)};
  }
  return bringup::Transfer([this]() -> bringup::Target& { return target(); }, progress, &interrupt::check,
                           options);
}

bringup::Target& Session::target() {
  if (!m_target) {
    auto target = std::make_unique<bringup::Target>(agentEndpoint(), kProcessName);
    target->open();
    m_target = std::move(target);
  }
  return *m_target;
}

common::Endpoint Session::agentEndpoint() {
  if (m_server) return *m_server;
  if (!m_embedded) {
    // Quiet, as the user may have said already: the simulator takes each option once.
    std::vector<std::string> options = m_simulatorOptions;
    if (std::find(options.begin(), options.end(), "--quiet") == options.end())
      options.insert(options.begin(), "--quiet");
    try {
      m_embedded = std::make_unique<common::SimulatorProcess>(simulatorPath(), options,
                                                              common::SimulatorProcess::Stderr::kCapture);
    } catch (const common::SimulatorProcess::StartFailure& failure) {
      // The simulator refuses options it cannot take with status 2, and says why in one line.
      if (failure.exitStatus() == kSimulatorUsageStatus && !failure.said().empty()) {
        throw bringup::usageError("invalid --sim-option: " + failure.said());
      }
      throw bringup::Error(bringup::Error::Kind::kConnection, "cannot start the simulated agent",
                           failure.what());
    }
    const std::string where = m_embedded->endpoint().text();
    m_output.info("started kvx-agent-sim on " + where, {{"simulator", where}});
  }
  return m_embedded->endpoint();
}

}  // namespace kvx::cli
