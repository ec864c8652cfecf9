// What a host sees when its agent fails under it or its configuration names an endpoint that
// cannot work. Every access then throws vorn::Exception with the plug-in's message, within the
// agent library's reply timeout, and the host process lives on. (An agent killed under many
// threads is the stress test's; the agent library's statuses, its timeout and SIGPIPE are the
// agent library's tests'.)
//
// The session is switched only when a process's endpoint differs from the open session's; the
// flag that says whether that session is still up takes no part. So once the session to an
// endpoint has failed, accesses through that endpoint keep failing until an access through
// another endpoint has switched the session away and back. This is intended, and pinned here.

#include <stdlib.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "agent/TaProcessKVX.h"
#include "manager/TaProcessManager.h"
#include "tests/support/HostSetup.h"
#include "tests/support/SimProcess.h"
#include "vorn/Exception.h"

namespace vorn {
namespace {

using kvx::test::at;
using kvx::test::processFor;
using kvx::test::read64;
using kvx::test::SimProcess;

/// How long an access may take: the reply timeout many times over, so that a slow sanitizer build
/// never trips it, yet an access that waits forever fails the test instead of hanging it.
constexpr std::chrono::seconds kWatchLimit{10};
/// What the writes of expectEveryAccessThrows would store.
constexpr uint64_t kUnwritten = 0x1234;

/// Expects each of the four data accesses through `process`, each run on a thread of its own, to
/// throw vorn::Exception from TaProcessKVX.cpp with the plug-in's message within kWatchLimit. For
/// an access still running then, the test fails and `release` is invoked (e.g. to kill the agent
/// the access waits for) so that it can end.
void expectEveryAccessThrows(const boost::shared_ptr<TaProcess>& process, const std::string& context,
                             const std::function<void()>& release = {}) {
  const std::pair<std::function<void()>, std::string> accesses[] = {
      {[process] { process->write_mem(at(0x10), 1, 8, &kUnwritten); },
       "Cannot write address 10 with memory space logger"},
      {[process] { read64(*process, 0x18); }, "Cannot read address 18 with memory space logger"},
      {[process] { process->write_register("r1", 1, 8, &kUnwritten); }, "Cannot write register r1"},
      {[process] {
         uint64_t value = 0;
         process->read_register("r7", 1, 8, &value);
       },
       "Cannot read register r7"},
  };
  for (const auto& [call, message] : accesses) {
    auto outcome = std::async(std::launch::async, [call = call]() -> std::string {
      try {
        call();
      } catch (const Exception& e) {
        return e.getFile() + ": " + e.getMessage();
      }
      return "no exception";
    });
    if (outcome.wait_for(kWatchLimit) != std::future_status::ready) {
      ADD_FAILURE() << context << ": the access did not return in time: " << message;
      if (release) release();
    }
    EXPECT_EQ(outcome.get(), "TaProcessKVX.cpp: " + message) << context;
  }
}

TEST(AgentFaultTest, FailedSessionIsReopenedOnlyAfterASwitchThroughAnotherEndpoint) {
  // Whatever an earlier test in this program left open is switched away from.
  TaProcessKVX::m_sharedConnection = KVXConnection();
  ::setenv("TA_AGENT_TIMEOUT_MS", "300", 1);
  const struct {
    const char* name;
    std::vector<std::string> arguments;
    bool restart;
  } cases[] = {
      // The handshake and two accesses are answered on each connection, nothing after.
      {"agent drops the connection", {"--quiet", "--drop-after", "3"}, false},
      {"agent stops answering", {"--quiet", "--hang-after", "3"}, false},
      {"agent restarted on its port", {"--quiet"}, true},
  };
  SimProcess other({"--quiet"});
  auto elsewhere = processFor(other);
  for (const auto& c : cases) {
    const std::string context = std::string("case: ") + c.name;
    SimProcess sim(c.arguments);
    auto process = processFor(sim);
    const uint64_t value = 0x4E57;
    ASSERT_NO_THROW(process->write_mem(at(0x40), 1, 8, &value)) << context;
    ASSERT_EQ(read64(*process, 0x40), value) << context;
    if (c.restart && !sim.restart({"--quiet"})) {
      GTEST_SKIP() << "port " << sim.port() << " could not be bound again within two seconds";
    }

    // The agent is there (again), yet the failed session's endpoint is not reopened, neither
    // by the old process nor by a new one for it.
    expectEveryAccessThrows(process, context, [&sim] { sim.kill(); });
    expectEveryAccessThrows(processFor(sim), context + ", a new process");

    // An access through another endpoint switches the session away; coming back reopens it.
    EXPECT_EQ(read64(*elsewhere, 0x40), 0u) << context;
    EXPECT_EQ(read64(*process, 0x40), c.restart ? 0u : value)
        << context << " (a restarted agent starts empty)";
  }
  ::unsetenv("TA_AGENT_TIMEOUT_MS");
}

// Configurations that the manager serves but whose endpoint cannot work: ports outside 1..65535
// once the 32-bit attribute becomes an int, addresses that do not resolve, ports nobody listens
// on, an agent that refuses every session. None may reach another agent, not even one whose
// port the bad number resembles.
TEST(BadEndpointTest, ProcessesForUnusableEndpointsFailEveryAccessAndReachNoOtherAgent) {
  TaProcessKVX::m_sharedConnection = KVXConnection();
  SimProcess good({"--quiet"});
  SimProcess refusing({"--quiet", "--refuse-sessions"});
  SimProcess gone({"--quiet"});
  gone.stop();
  const uint32_t goodPort = good.port();
  const struct {
    const char* name;
    std::string address;
    uint32_t port;
  } cases[] = {
      {"port 0", good.address(), 0},
      // Cut to 16 bits, this port would be the good agent's.
      {"port above 65535", good.address(), 0x10000 + goodPort},
      {"port that becomes -1", good.address(), 0xFFFFFFFFu},
      {"port that becomes negative", good.address(), 0x80000000u + goodPort},
      {"empty address", "", goodPort},
      {"address in brackets", "[" + good.address() + "]", goodPort},
      {"address that does not resolve", "no-such-host.invalid", goodPort},
      {"nobody listening", good.address(), gone.port()},
      {"agent refusing sessions", refusing.address(), refusing.port()},
  };
  TaProcessManager& manager = TaProcessManager::getInstance();
  auto goodProcess = processFor(good);
  for (const auto& c : cases) {
    const std::string context = std::string("case: ") + c.name;
    const auto config = kvx::test::servedConfig(c.address, c.port);
    ASSERT_EQ(manager.registerClient(nullptr, config), TA_METHOD_SERVED) << context;
    auto process = manager.getTaProcess(c.name, config);
    ASSERT_TRUE(process) << context << ": a process is made without asking the agent";

    // The good agent first, so that each bad endpoint is switched to afresh; it holds nothing
    // of what the case before meant for its bad endpoint.
    EXPECT_EQ(read64(*goodProcess, 0x10), 0u) << context;
    expectEveryAccessThrows(process, context);
    EXPECT_FALSE(TaProcessKVX::m_sharedConnection.isActive()) << context << ": no session is left";
  }
  EXPECT_EQ(read64(*goodProcess, 0x10), 0u);
  uint64_t r1 = ~0ull;
  goodProcess->read_register("r1", 1, 8, &r1);
  EXPECT_EQ(r1, 0u) << "a register write meant for a bad endpoint reached the good agent";
}

}  // namespace
}  // namespace vorn
