// A host built against the installed plug-in: admits a configuration for the agent at ADDRESS
// and PORT, obtains a process for it, then writes and reads back one memory word and one
// register. Exits 0 when both came back as written, 1 otherwise, 2 on a usage error.

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include "manager/TaProcessManager.h"
#include "vorn/ConfigBlock.h"
#include "vorn/Exception.h"
#include "vorn/ExtAddress.h"
#include "vorn/TaProcess.h"

namespace {

constexpr uint64_t kAddress = 0x1000;
constexpr uint32_t kWord = 0xc0ffee42;
const char* const kRegister = "r1";
constexpr uint64_t kRegisterValue = 0x1122334455667788;

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: host ADDRESS PORT\n");
    return 2;
  }
  const std::string serverAddress = argv[1];
  const auto serverPort = static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 10));

  auto config = boost::make_shared<vorn::ConfigBlock>();
  config->setAttribute("TaType", boost::make_shared<vorn::StringAttribute>("KVX"));
  config->setAttribute("ServerAddress", boost::make_shared<vorn::StringAttribute>(serverAddress));
  config->setAttribute("ServerPort", boost::make_shared<vorn::UInt32Attribute>(serverPort));

  vorn::TaProcessManager& manager = vorn::TaProcessManager::getInstance();
  const int32_t admission = manager.registerClient(nullptr, config);
  std::printf("admission: %" PRId32 "\n", admission);
  if (admission != vorn::TA_METHOD_SERVED) {
    std::fprintf(stderr, "host: configuration not admitted\n");
    return 1;
  }
  boost::shared_ptr<vorn::TaProcess> process = manager.getTaProcess("core0", config);
  if (!process) {
    std::fprintf(stderr, "host: no process for %s:%" PRIu32 "\n", serverAddress.c_str(), serverPort);
    return 1;
  }

  try {
    vorn::ExtAddress address;
    address.memorySpace = vorn::ExtAddress::memorySpaceIds.at(0);
    address.address = kAddress;
    uint32_t word = kWord;
    process->write_mem(address, 1, sizeof word, &word);
    word = 0;
    process->read_mem(address, 1, sizeof word, &word);
    std::printf("memory %#" PRIx64 ": %#" PRIx32 "\n", kAddress, word);

    uint64_t value = kRegisterValue;
    process->write_register(kRegister, 1, sizeof value, &value);
    value = 0;
    process->read_register(kRegister, 1, sizeof value, &value);
    std::printf("register %s: %#" PRIx64 "\n", kRegister, value);

    if (word != kWord || value != kRegisterValue) {
      std::fprintf(stderr, "host: read back differs from what was written\n");
      return 1;
    }
  } catch (const vorn::Exception& error) {
    std::fprintf(stderr, "host: %s:%u: %s\n", error.getFile().c_str(), error.getLine(), error.what());
    return 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "host: %s\n", error.what());
    return 1;
  }
  return 0;
}
