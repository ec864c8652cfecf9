// What a host sees through the plug-in when its agent fails under it: every access throws the
// plug-in's vorn::Exception within the agent library's reply timeout (a watchdog fails the test
// instead of letting it hang), and the host process lives on. How the agent library itself reports
// each fault is its own tests' business.
//
// The session is switched only when a process's endpoint differs from the open session's; the
// flag that says whether that session is still up takes no part. So once the session to an
// endpoint has failed, accesses through that endpoint keep failing, even once the agent is back,
// until an access through another endpoint has switched the session away and back. This is
// intended, and pinned here.

#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "agent/TaProcessKVX.h"
#include "tests/support/HostSetup.h"
#include "tests/support/SimProcess.h"
#include "vorn/Exception.h"

namespace vorn {
namespace {

using kvx::test::at;
using kvx::test::processFor;
using kvx::test::read64;
using kvx::test::SimProcess;

/// The reply timeout many times over, so that a slow sanitizer build never trips it.
constexpr std::chrono::seconds kWatchLimit{10};

/// The message of each of the four data accesses through `process`, or "returned".
std::vector<std::string> outcomes(const boost::shared_ptr<TaProcess>& process) {
  std::vector<std::string> messages;
  uint64_t value = 0x1234;
  for (int access = 0; access < 4; ++access) {
    try {
      if (access == 0) process->write_mem(at(0x10), 1, 8, &value);
      if (access == 1) process->read_mem(at(0x18), 1, 8, &value);
      if (access == 2) process->write_register("r1", 1, 8, &value);
      if (access == 3) process->read_register("r7", 1, 8, &value);
      messages.push_back("returned");
    } catch (const Exception& e) {
      messages.push_back(e.getMessage());
    }
  }
  return messages;
}

TEST(AgentFaultTest, FailedSessionIsReopenedOnlyAfterASwitchThroughAnotherEndpoint) {
  // Whatever an earlier test in this program left open is switched away from.
  TaProcessKVX::m_sharedConnection = KVXConnection();
  ::setenv("TA_AGENT_TIMEOUT_MS", "300", 1);
  const std::vector<std::string> failed = {"Cannot write address 10 with memory space logger",
                                           "Cannot read address 18 with memory space logger",
                                           "Cannot write register r1", "Cannot read register r7"};
  const struct {
    const char* name;
    std::vector<std::string> arguments;
    bool restart;
  } cases[] = {
      // The handshake and two accesses are answered on each connection, nothing after.
      {"agent drops the connection", {"--quiet", "--drop-after", "3"}, false},
      {"agent stops answering", {"--quiet", "--hang-after", "3"}, false},
      {"agent killed and restarted on its port", {"--quiet"}, true},
  };
  SimProcess other({"--quiet"});
  auto elsewhere = processFor(other);
  for (const auto& c : cases) {
    const std::string context = std::string("case: ") + c.name;
    SimProcess sim(c.arguments);
    auto process = processFor(sim);
    const uint64_t value = 0x4E57;
    process->write_mem(at(0x40), 1, 8, &value);
    ASSERT_EQ(read64(*process, 0x40), value) << context;
    if (c.restart && !sim.restart({"--quiet"})) {
      GTEST_SKIP() << "port " << sim.port() << " could not be bound again within two seconds";
    }

    // The agent is there (again), yet neither the old process nor a new one reopens the session.
    for (const auto& through : {process, processFor(sim)}) {
      auto running = std::async(std::launch::async, [through] { return outcomes(through); });
      if (running.wait_for(kWatchLimit) != std::future_status::ready) {
        ADD_FAILURE() << context << ": an access did not return in time";
        sim.kill();
      }
      EXPECT_EQ(running.get(), failed) << context;
    }

    // An access through another endpoint switches the session away; coming back reopens it.
    EXPECT_EQ(read64(*elsewhere, 0x40), 0u) << context;
    EXPECT_EQ(read64(*process, 0x40), c.restart ? 0u : value)
        << context << " (a restarted agent starts empty)";
  }
  ::unsetenv("TA_AGENT_TIMEOUT_MS");
}

/// The way back that hosts of ours offer after an agent restarts, through the plug-in's public
/// interface alone: the session switches to an endpoint that no process has, which the agent
/// library refuses at once, so the next access through any process switches back and opens a
/// fresh session.
void reconnect() { TaProcessKVX("", -1).activateConnection(); }

TEST(AgentFaultTest, AgentRestartedUnderLongLivedProcessesIsReachedAgainAfterReconnect) {
  SimProcess restarting({"--quiet"});
  SimProcess other({"--quiet"});
  const auto first = processFor(restarting);
  const auto second = processFor(restarting);
  const auto elsewhere = processFor(other);
  for (const bool othersBusy : {false, true}) {
    const std::string context = othersBusy ? "another thread busy elsewhere" : "alone";
    uint64_t value = 0x600D;
    first->write_mem(at(0x40), 1, 8, &value);
    if (!restarting.restart({"--quiet"})) {
      GTEST_SKIP() << "port " << restarting.port() << " could not be bound again within two seconds";
    }
    EXPECT_THROW(read64(*first, 0x40), Exception) << context << ": the session was lost";

    std::atomic<bool> done{false};
    std::atomic<int> failures{0};
    std::thread busy;
    if (othersBusy) {
      busy = std::thread([&] {
        for (uint64_t i = 0; !done; ++i) {
          try {
            elsewhere->write_mem(at(0x80), 1, 8, &i);
            failures += read64(*elsewhere, 0x80) != i;
          } catch (const Exception&) {
            ++failures;
          }
        }
      });
    }
    reconnect();
    EXPECT_EQ(read64(*first, 0x40), 0u) << context << ": the new agent, empty";
    value = 0xBEEF;
    second->write_mem(at(0x48), 1, 8, &value);
    EXPECT_EQ(read64(*first, 0x48), value) << context;
    done = true;
    if (busy.joinable()) busy.join();
    EXPECT_EQ(failures.load(), 0) << context << ": the other thread's accesses were disturbed";
  }
}

}  // namespace
}  // namespace vorn
