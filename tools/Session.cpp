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
      m_output(output),
      m_simulatorPath(std::move(simulatorPath)) {}

Session::~Session() {
  m_target.reset();
  m_embedded.reset();
}

Target& Session::target() {
  if (!m_target) {
    common::Endpoint endpoint;
    if (m_server) {
      endpoint = *m_server;
    } else {
      std::vector<std::string> options{"--quiet"};
      options.insert(options.end(), m_simulatorOptions.begin(), m_simulatorOptions.end());
      try {
        m_embedded = std::make_unique<common::SimulatorProcess>(m_simulatorPath, options);
      } catch (const std::runtime_error& failure) {
        throw Failure("cannot start the simulated agent", failure.what());
      }
      endpoint = m_embedded->endpoint();
      m_output.info("started kvx-agent-sim on " + endpoint.text(), {{"simulator", endpoint.text()}});
    }
    m_target = std::make_unique<Target>(endpoint);
  }
  return *m_target;
}

}  // namespace kvx::cli
