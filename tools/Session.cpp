#include "tools/Session.h"

#include <iostream>
#include <utility>

#include "common/SimulatorProcess.h"
#include "tools/Target.h"

namespace kvx::cli {

Session::Session(std::optional<common::Endpoint> server, std::string simulatorPath)
    : m_server(std::move(server)), m_simulatorPath(std::move(simulatorPath)) {}

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
      m_embedded =
          std::make_unique<common::SimulatorProcess>(m_simulatorPath, std::vector<std::string>{"--quiet"});
      endpoint = m_embedded->endpoint();
      std::cerr << "kvx-ta: started kvx-agent-sim on " << endpoint.text() << std::endl;
    }
    m_target = std::make_unique<Target>(endpoint);
  }
  return *m_target;
}

}  // namespace kvx::cli
