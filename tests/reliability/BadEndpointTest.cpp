// Configurations that the manager serves but whose endpoint cannot work: ports outside 1..65535
// once the 32-bit attribute becomes an int, addresses that do not resolve, ports nobody listens
// on. The manager hands out a process without asking the agent; every access through it must
// throw, and none may reach another agent, not even one whose port the bad number resembles.

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "agent/TaProcessKVX.h"
#include "manager/TaProcessManager.h"
#include "tests/reliability/HostWatch.h"
#include "tests/support/SimProcess.h"

namespace vorn {
namespace {

using kvx::test::SimProcess;
using test::at;
using test::CallOutcome;

constexpr std::chrono::milliseconds kWatchLimit{10000};
/// Where the processes for bad endpoints write; the good agent must still hold zero there.
constexpr uint64_t kProbeBase = 0x5000;

TEST(BadEndpointTest, ProcessesForUnusableEndpointsFailEveryAccessAndReachNoOtherAgent) {
  TaProcessKVX::m_sharedConnection = KVXConnection();
  SimProcess good({"--quiet"});
  uint16_t deadPort = 0;
  {
    SimProcess gone({"--quiet"});
    deadPort = gone.port();
  }
  const uint32_t goodPort = good.port();
  struct Case {
    const char* name;
    std::string address;
    uint32_t port;
  };
  const Case cases[] = {
      {"port 0", good.address(), 0},
      // Cut to 16 bits, this port would be the good agent's.
      {"port above 65535", good.address(), 0x10000 + goodPort},
      {"port that becomes -1", good.address(), 0xFFFFFFFFu},
      {"port that becomes negative", good.address(), 0x80000000u + goodPort},
      {"empty address", "", goodPort},
      {"address in brackets", "[" + good.address() + "]", goodPort},
      {"address that does not resolve", "no-such-host.invalid", goodPort},
      {"nobody listening", good.address(), deadPort},
  };
  TaProcessManager& manager = TaProcessManager::getInstance();
  auto goodProcess = test::processFor(good.address(), goodPort);
  uint64_t probe = kProbeBase;
  for (const Case& c : cases) {
    const auto config = test::servedConfig(c.address, c.port);
    ASSERT_EQ(manager.registerClient(nullptr, config), TA_METHOD_SERVED) << c.name;
    auto process = manager.getTaProcess(c.name, config);
    ASSERT_TRUE(process) << c.name << ": a process is made without asking the agent";

    // The good agent first, so that each bad endpoint is switched to afresh.
    uint64_t value = 0;
    ASSERT_NO_THROW(goodProcess->read_mem(at(probe), 1, 8, &value)) << c.name;

    const uint64_t marker = 0xBAD0000000000000ull | probe;
    const CallOutcome write =
        test::watch([process, marker, probe] { process->write_mem(at(probe), 1, 8, &marker); }, kWatchLimit);
    EXPECT_TRUE(write.threwVorn) << c.name << ": " << write;
    const CallOutcome registerWrite =
        test::watch([process, marker] { process->write_register("r1", 1, 8, &marker); }, kWatchLimit);
    EXPECT_TRUE(registerWrite.threwVorn) << c.name << ": " << registerWrite;
    const CallOutcome read = test::watch(
        [process, probe] {
          uint64_t out = 0;
          process->read_mem(at(probe), 1, 8, &out);
        },
        kWatchLimit);
    EXPECT_TRUE(read.threwVorn) << c.name << ": " << read;
    probe += 8;
  }

  // Nothing that was meant for a bad endpoint arrived at the good agent.
  for (uint64_t address = kProbeBase; address < probe; address += 8) {
    uint64_t value = ~0ull;
    ASSERT_NO_THROW(goodProcess->read_mem(at(address), 1, 8, &value));
    EXPECT_EQ(value, 0u) << "at 0x" << std::hex << address;
  }
  uint64_t r1 = ~0ull;
  ASSERT_NO_THROW(goodProcess->read_register("r1", 1, 8, &r1));
  EXPECT_EQ(r1, 0u);
}

}  // namespace
}  // namespace vorn
