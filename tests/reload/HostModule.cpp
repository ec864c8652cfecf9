// The part of a host that uses the plug-in, built as a module that ReloadHost loads and unloads:
// it reaches the plug-in only through its headers and libraries, as a host's own plug-in glue does.
#include <cstdint>
#include <cstdio>

#include "agent/TaProcessKVX.h"
#include "tests/support/HostSetup.h"
#include "vorn/Exception.h"

#define HOST_MODULE_API extern "C" __attribute__((visibility("default")))

/// One access through a process for (`address`, `port`); the session switch before it records
/// the endpoint in the plug-in's statics whether or not an agent answers there. It asks for 16
/// bytes, so the plug-in warns.
HOST_MODULE_API void hostModuleUse(const char* address, int port) {
  auto config = kvx::test::servedConfig(address, static_cast<uint32_t>(port));
  auto process = vorn::TaProcessManager::getInstance().getTaProcess("reload", config);
  try {
    uint8_t bytes[16];
    process->read_mem(kvx::test::at(0x1000), 1, sizeof bytes, bytes);
  } catch (const vorn::Exception&) {
    // Nothing listens there; the switch has happened all the same.
  }
}

/// The endpoint that the plug-in records for the open session, as "ADDRESS:PORT".
HOST_MODULE_API void hostModuleSharedEndpoint(char* text, size_t size) {
  const vorn::KVXConnection shared = vorn::TaProcessKVX::sharedConnection();
  std::snprintf(text, size, "%s:%d", shared.getTargetAddress().c_str(), shared.getTargetPort());
}
