// The bring-up library's Target against kvx-agent-sim, through the plug-in and the stand-in agent
// library: what a host sees of the agent calls, and why an access failed, each cause once.

#include "bringup/Target.h"

#include <gtest/gtest.h>

#include "bringup/AgentCalls.h"
#include "bringup/Error.h"
#include "tests/support/RequestProxy.h"
#include "tests/support/SimProcess.h"

namespace kvx::test {
namespace {

using bringup::Error;

TEST(TargetTest, AnAccessMakesTheAgentCallsOfAHostAndNoOthers) {
  SimProcess sim({"--quiet"});
  std::vector<std::string> calls;
  bringup::observeAgentCalls([&calls](const bringup::AgentCall& call) { calls.push_back(call.signature()); });
  bringup::Target target(sim.endpoint(), "test");
  target.open();
  uint8_t bytes[4];
  target.read(0x1000, bytes, 4);
  bringup::observeAgentCalls(nullptr);
  // The descriptor asks for the socket twice as it is built; then the switch and the access.
  EXPECT_EQ(calls,
            (std::vector<std::string>{"get_sock_status()", "get_sock_status()", "destroy_session()",
                                      "destroy_session()", "get_sock_status()",
                                      "start_session(\"127.0.0.1\", " + std::to_string(sim.port()) + ")",
                                      "io_read(0x1000, 4)"}));
  EXPECT_TRUE(bringup::agentLibrary().known) << bringup::agentLibrary().path;
}

TEST(TargetTest, ARefusedAccessIsToldFromItsOwnCallAlone) {
  SimProcess sim({"--quiet", "--deny", "0xdead0000:0x100"});
  RequestProxy proxy(sim.endpoint());
  bringup::Target target(proxy.endpoint(), "test");
  uint8_t bytes[4];
  try {
    target.read(0xdead0010, bytes, 4);
    FAIL() << "the read was not refused";
  } catch (const Error& refused) {
    EXPECT_EQ(refused.kind(), Error::Kind::kTarget);
    EXPECT_STREQ(refused.what(),
                 "cannot read 4 bytes at 0xdead0010: access denied: the agent closes this range to "
                 "accesses");
    ASSERT_TRUE(refused.call().has_value());
    EXPECT_EQ(refused.call()->address, 0xdead0010u);
  }
  EXPECT_EQ(proxy.requests(protocol::Opcode::kIoRead).size(), 1u);
  EXPECT_EQ(proxy.connections(), 1u);
}

TEST(TargetTest, EachCauseOfAFailureIsToldApart) {
  const struct {
    std::vector<std::string> agent;  ///< the simulator's options
    std::function<void(bringup::Target&)> access;
    Error::Kind kind;
    std::string message;
  } cases[] = {
      {{"--memory-limit", "0"},
       [](bringup::Target& t) {
         const uint8_t one = 1;
         t.write(0, &one, 1);
       },
       Error::Kind::kTarget,
       "cannot write 1 byte at 0x0: the target is out of memory"},
      {{},
       [](bringup::Target& t) { t.readRegister("r64"); },
       Error::Kind::kTarget,
       "cannot read register r64: unknown register: the agent has no register called 'r64'"},
      {{},
       [](bringup::Target& t) { t.writeRegister("ps", 0x100000000); },
       Error::Kind::kTarget,
       "cannot write 0x100000000 to register ps: value too wide: ps is a 32-bit register"},
      {{},
       [](bringup::Target& t) { t.reserve(0x2000000); },
       Error::Kind::kTarget,
       "cannot reserve 33554432 bytes: no space for a block that size in the reservation region"},
      {{},
       [](bringup::Target& t) { t.unreserve(0x1234); },
       Error::Kind::kTarget,
       "cannot release the block at 0x1234: 0x1234 is not the start of a reserved block"},
      {{"--refuse-sessions"},
       [](bringup::Target& t) { t.open(); },
       Error::Kind::kConnection,
       "cannot open a session with the agent at 127.0.0.1:PORT: the agent refused the session"},
      {{"--drop-after", "1"},
       [](bringup::Target& t) {
         uint8_t byte;
         t.read(0, &byte, 1);
       },
       Error::Kind::kConnection,
       "cannot read 1 byte at 0x0: the agent at 127.0.0.1:PORT is gone: it closed the connection"},
  };
  for (const auto& c : cases) {
    std::vector<std::string> options{"--quiet"};
    options.insert(options.end(), c.agent.begin(), c.agent.end());
    SimProcess sim(options);
    bringup::Target target(sim.endpoint(), "test");
    std::string message = c.message;
    if (const size_t port = message.find("PORT"); port != std::string::npos) {
      message.replace(port, 4, std::to_string(sim.port()));
    }
    try {
      c.access(target);
      ADD_FAILURE() << "case: " << message << ": it did not fail";
    } catch (const Error& failure) {
      EXPECT_TRUE(failure.kind() == c.kind && failure.what() == message) << "case: " << message << "\n"
                                                                         << failure.what();
    }
  }
  // With no agent there, the session cannot be opened, and the first access after says why.
  bringup::Target nobody({"127.0.0.1", 1}, "test");
  EXPECT_THROW(nobody.open(), Error);
  uint8_t byte;
  try {
    nobody.read(0, &byte, 1);
  } catch (const Error& failure) {
    EXPECT_EQ(failure.reason(),
              "no session is open with the agent at 127.0.0.1:1: it could not be opened: connection refused: "
              "nothing "
              "listens on port 1");
  }
}

}  // namespace
}  // namespace kvx::test
