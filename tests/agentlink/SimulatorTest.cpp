// The simulated agent as a raw client sees it: what it does with frames that the client library
// would never send, and how it starts and stops.

#include <signal.h>

#include <gtest/gtest.h>

#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/SimProcess.h"
#include "tests/support/WireConnection.h"

namespace kvx::test {
namespace {

using test::Frame;
using test::WireConnection;
namespace protocol = kvx::protocol;
using protocol::Opcode;

protocol::Request request(protocol::Opcode opcode, uint64_t value = 0) {
  protocol::Request made;
  made.opcode = opcode;
  made.value = value;
  return made;
}

TEST(SimulatorTest, MalformedFramesDropOnlyTheirOwnConnection) {
  SimProcess sim;
  constexpr uint32_t kOurs = protocol::kProtocolVersion;
  protocol::Reply reply;
  // A handshake refused for its version may be tried again on the same connection.
  WireConnection bystander(sim.endpoint());
  ASSERT_TRUE(bystander.transact(request(Opcode::kHello, kOurs + 1), reply));
  EXPECT_EQ(reply.status, protocol::ReplyStatus::kVersionMismatch);
  EXPECT_EQ(reply.value, kOurs) << "the agent says what it speaks";
  ASSERT_TRUE(bystander.transact(request(Opcode::kHello, kOurs), reply));
  EXPECT_EQ(reply.status, protocol::ReplyStatus::kOk);

  // Which frames the decoders refuse is the protocol test's; these reach each way the simulator
  // has of ending a connection. Each case's client is a new one, served after the drops before.
  const Frame read = test::encoded(request(Opcode::kIoRead));
  Frame nineBytes = read;
  nineBytes[protocol::kHeaderSize + 8] = 9;
  const struct {
    const char* name;
    Frame bytes;
    uint32_t greeting;  ///< the version of the Hello sent first; 0 for none
  } cases[] = {
      // Only the header is sent: the drop must not wait for a payload that never comes.
      {"length of 4 GiB", Frame{'K', 'A', 4, 0, 2, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}, kOurs},
      {"io size of 9", nineBytes, kOurs},
      {"request before the handshake", read, 0},
      {"request after a refused handshake", read, kOurs + 1},
  };
  for (const auto& c : cases) {
    WireConnection client(sim.endpoint());
    ASSERT_TRUE(c.greeting == 0 || client.transact(request(Opcode::kHello, c.greeting), reply)) << c.name;
    ASSERT_TRUE(client.send(c.bytes)) << c.name;
    EXPECT_TRUE(client.closedByPeer()) << c.name;
    EXPECT_TRUE(bystander.transact(request(Opcode::kIoRead), reply))
        << c.name << ": the others are still served";
  }
  // Nor does a client that leaves half a frame behind hold up the others.
  WireConnection halfway(sim.endpoint());
  ASSERT_TRUE(halfway.transact(request(Opcode::kHello, kOurs), reply) &&
              halfway.send(Frame(read.begin(), read.end() - 3)));
  EXPECT_TRUE(bystander.transact(request(Opcode::kIoRead), reply));
  // After all that, an interrupt still stops the simulator cleanly.
  ASSERT_EQ(::kill(sim.pid(), SIGINT), 0);
  EXPECT_EQ(sim.stop(), 0);
}

TEST(SimulatorTest, BadCommandLinesStopTheSimulatorBeforeItListens) {
  const std::vector<std::vector<std::string>> commandLines = {
      {"--port", "65536"},
      {"--deny", "0x1000"},
      {"--memory-limit", "12k"},
      {"--reserve-base", "0x81"},
      {"--bind", "not-an-address"},
      {"--no-such-option"},
      // Ranges that mean nothing: empty, or running past the top of the address space.
      {"--deny", "0x10:0"},
      {"--deny", "0xfffffffffffffff0:0x11"},
      {"--reserve-size", "0"},
  };
  for (const auto& arguments : commandLines) {
    EXPECT_THROW(SimProcess{arguments}, std::runtime_error) << arguments[0] << ' ' << arguments.back();
  }
}

// A command run under the simulator learns where it listens: HOST:PORT ready for --server, and
// the bare address and the port for hosts that take them apart. The simulator ends with it.
TEST(SimulatorTest, CommandFindsTheAgentInItsEnvironmentAndGivesItsStatus) {
  const std::string print = R"(echo "$KVX_AGENT_SERVER|$KVX_AGENT_ADDRESS|$KVX_AGENT_PORT"; exit 3)";
  for (const std::string bind : {"127.0.0.1", "::1"}) {
    const ProgramResult result =
        runProgram({TA_KVX_SIM_PATH, "--quiet", "--bind", bind, "--", "/bin/sh", "-c", print});
    if (result.exitCode == 1 && result.err.find("cannot listen") != std::string::npos) {
      GTEST_SKIP() << "no " << bind << " here: " << result.err;
    }
    const std::string host = bind == "::1" ? "\\[::1\\]" : "127\\.0\\.0\\.1";
    EXPECT_EQ(result.exitCode, 3) << result;
    EXPECT_TRUE(std::regex_match(result.out, std::regex(host + ":(\\d+)\\|" + bind + "\\|\\1\n"))) << result;
  }
}

}  // namespace
}  // namespace kvx::test
