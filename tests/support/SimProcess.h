// The kvx-agent-sim that this build produced, started for a test with the given options, on a
// free loopback port unless they say otherwise. See SimulatorProcess for the rest.
//
//   SimProcess sim({"--deny", "0x1000:16"});
//   start_session(sim.address().c_str(), sim.port());
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "common/SimulatorProcess.h"

namespace kvx::test {

class SimProcess : public common::SimulatorProcess {
 public:
  explicit SimProcess(std::vector<std::string> options = {})
      : SimulatorProcess(TA_KVX_SIM_PATH, std::move(options)) {}

  const std::string& address() const { return endpoint().host; }
  uint16_t port() const { return static_cast<uint16_t>(endpoint().port); }
};

}  // namespace kvx::test
