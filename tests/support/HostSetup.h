// What the tests that drive the plug-in as a host does share: a configuration block that the
// manager serves, a process obtained for it the way a host obtains one, and addresses in the
// plug-in's memory space. Header-only; every function may be called from any thread.
#pragma once

#include <cstdint>
#include <string>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include "manager/TaProcessManager.h"
#include "tests/support/SimProcess.h"
#include "vorn/ConfigBlock.h"
#include "vorn/ExtAddress.h"
#include "vorn/TaProcess.h"

namespace kvx::test {

/// A block that the manager serves, naming (`address`, `port`).
inline boost::shared_ptr<vorn::ConfigBlock> servedConfig(const std::string& address, uint32_t port) {
  auto config = boost::make_shared<vorn::ConfigBlock>();
  config->setAttribute("TaType", boost::make_shared<vorn::StringAttribute>("KVX"));
  config->setAttribute("ServerAddress", boost::make_shared<vorn::StringAttribute>(address));
  config->setAttribute("ServerPort", boost::make_shared<vorn::UInt32Attribute>(port));
  return config;
}

inline boost::shared_ptr<vorn::TaProcess> processFor(const SimProcess& sim) {
  return vorn::TaProcessManager::getInstance().getTaProcess("core", servedConfig(sim.address(), sim.port()));
}

inline vorn::ExtAddress at(uint64_t address) { return vorn::ExtAddress{"logger", address}; }

/// The 8 bytes at `address`; throws what read_mem throws.
inline uint64_t read64(vorn::TaProcess& process, uint64_t address) {
  uint64_t value = 0;
  process.read_mem(at(address), 1, 8, &value);
  return value;
}

}  // namespace kvx::test
