// A host built against the installed plug-in: admits a configuration for the agent at ADDRESS
// and PORT, obtains a process for it, then writes and reads back one word of target memory.
// Exits 0 when it came back as written, 1 otherwise, 2 on a usage error.

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <boost/make_shared.hpp>

#include "manager/TaProcessManager.h"
#include "vorn/ConfigBlock.h"
#include "vorn/Exception.h"
#include "vorn/ExtAddress.h"
#include "vorn/TaProcess.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: host ADDRESS PORT\n");
    return 2;
  }
  auto config = boost::make_shared<vorn::ConfigBlock>();
  config->setAttribute("TaType", boost::make_shared<vorn::StringAttribute>("KVX"));
  config->setAttribute("ServerAddress", boost::make_shared<vorn::StringAttribute>(argv[1]));
  const auto port = static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 10));
  config->setAttribute("ServerPort", boost::make_shared<vorn::UInt32Attribute>(port));
  vorn::TaProcessManager& manager = vorn::TaProcessManager::getInstance();
  const int32_t admission = manager.registerClient(nullptr, config);
  const auto process = manager.getTaProcess("core0", config);
  if (admission != vorn::TA_METHOD_SERVED || !process) {
    std::fprintf(stderr, "host: configuration not served\n");
    return 1;
  }
  uint32_t word = 0xc0ffee42;
  try {
    const vorn::ExtAddress address{vorn::ExtAddress::memorySpaceIds.at(0), 0x1000};
    process->write_mem(address, 1, sizeof word, &word);
    word = 0;
    process->read_mem(address, 1, sizeof word, &word);
  } catch (const vorn::Exception& error) {
    std::fprintf(stderr, "host: %s:%u: %s\n", error.getFile().c_str(), error.getLine(), error.what());
    return 1;
  }
  std::printf("memory 0x1000: %#x\n", word);
  return word == 0xc0ffee42 ? 0 : 1;
}
