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

namespace vorn::test {

/// A block that the manager serves, naming (`address`, `port`).
inline boost::shared_ptr<ConfigBlock> servedConfig(const std::string& address, uint32_t port) {
  auto config = boost::make_shared<ConfigBlock>();
  config->setAttribute("TaType", boost::make_shared<StringAttribute>("KVX"));
  config->setAttribute("ServerAddress", boost::make_shared<StringAttribute>(address));
  config->setAttribute("ServerPort", boost::make_shared<UInt32Attribute>(port));
  return config;
}

inline boost::shared_ptr<TaProcess> processFor(const kvx::test::SimProcess& sim) {
  return TaProcessManager::getInstance().getTaProcess("core", servedConfig(sim.address(), sim.port()));
}

inline ExtAddress at(uint64_t address) { return ExtAddress{"logger", address}; }

/// The 8 bytes at `address`; throws what read_mem throws.
inline uint64_t read64(TaProcess& process, uint64_t address) {
  uint64_t value = 0;
  process.read_mem(at(address), 1, 8, &value);
  return value;
}

}  // namespace vorn::test
