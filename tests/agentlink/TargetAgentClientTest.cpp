// The agent client library against a live simulated agent over loopback, and against an agent
// that the test plays itself for the replies and closes that the simulator never produces.

#include "agent/TargetAgent.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/agent/AgentStatus.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/SimProcess.h"
#include "tests/support/WireConnection.h"

namespace kvx::agent {
namespace {

using test::Frame;
using test::SimProcess;

constexpr int32_t code(Status status) { return static_cast<int32_t>(status); }

/// The far side of the wire played by the test: takes the library's one connection and answers
/// its requests one at a time. Every wait is bounded by five seconds.
class ScriptedAgent {
 public:
  /// Changes the right reply into what is sent instead (nothing, when it is left empty); may
  /// send bytes of its own first.
  using Edit = std::function<void(Frame&, test::WireConnection&)>;

  /// Calls start_session on another thread and answers its Hello as respond() does. Returns what
  /// start_session returned.
  int32_t handshake(const Edit& edit = {}) {
    auto started =
        std::async(std::launch::async, [this] { return start_session("127.0.0.1", m_listener.port()); });
    m_wire = std::make_unique<test::WireConnection>(m_listener.accept());
    respond(edit);
    return started.get();
  }

  /// Answers the library's next request with the right reply changed by `edit`, then closes the
  /// connection if `thenClose`.
  void respond(const Edit& edit = {}, bool thenClose = false) {
    Frame frame;
    protocol::Request request;
    EXPECT_TRUE(m_wire->receiveFrame(frame) && protocol::decodeRequest(frame.data(), frame.size(), request));
    protocol::Reply reply;
    reply.opcode = request.opcode;
    reply.id = request.id;
    reply.value = request.opcode == protocol::Opcode::kHello ? protocol::kProtocolVersion : 0;
    frame = test::encoded(reply);
    if (edit) edit(frame, *m_wire);
    m_wire->send(frame);
    if (thenClose) m_wire->close();
  }

  test::WireConnection& wire() { return *m_wire; }

 private:
  test::WireListener m_listener;
  std::unique_ptr<test::WireConnection> m_wire;
};

class TargetAgentClientTest : public ::testing::Test {
 protected:
  void TearDown() override {
    destroy_session();
    ::unsetenv("TA_AGENT_TIMEOUT_MS");
  }

  static int32_t connect(const SimProcess& sim) { return start_session(sim.address().c_str(), sim.port()); }

  /// Calls that need a session, with valid arguments, each expected to answer `expected`: one that
  /// checks the connection, one that hands data back and one that does not.
  static void expectEveryCallFailsWith(Status expected) {
    uint64_t value = 0;
    EXPECT_EQ(get_sock_status(), code(expected));
    EXPECT_EQ(io_read(0x100, reinterpret_cast<uint8_t*>(&value), 8), code(expected));
    EXPECT_EQ(reg_write("r1", 1), code(expected));
    EXPECT_EQ(ddr_unreserve_all(), code(expected));
  }
};

TEST_F(TargetAgentClientTest, CallsMoveExactlyTheirWidthAndRefusalsHandBackNothing) {
  SimProcess sim({"--deny", "0x1000:0x10"});
  ASSERT_EQ(connect(sim), 0);
  // A write stores exactly `size` bytes, a read hands back exactly `size` bytes.
  Frame got(8, 0xEE);
  ASSERT_EQ(io_write(0x100, 0x8877665544332211ull, 8), 0);
  ASSERT_EQ(io_write(0x100, ~0ull, 3), 0);
  ASSERT_EQ(io_read(0x100, got.data(), 5), 0);
  EXPECT_EQ(got, (Frame{0xFF, 0xFF, 0xFF, 0x44, 0x55, 0xEE, 0xEE, 0xEE}));
  // ps is 32 bits wide: a read stores 4 bytes.
  Frame reg(8, 0xEE);
  ASSERT_EQ(reg_write("ps", 0xFFFFFFFF), 0);
  ASSERT_EQ(reg_read("ps", reg.data()), 0);
  EXPECT_EQ(reg, (Frame{0xFF, 0xFF, 0xFF, 0xFF, 0xEE, 0xEE, 0xEE, 0xEE}));

  // A refusal fails its call alone: it hands back nothing, and the session stays.
  uint8_t buffer[8] = {0xEE};
  uint64_t untouched = 0x77;
  EXPECT_EQ(io_read(0x1008, buffer, 8), code(Status::kDenied));
  EXPECT_EQ(reg_read("x0", &untouched), code(Status::kUnknownRegister));
  EXPECT_EQ(buffer[0], 0xEE);
  EXPECT_EQ(untouched, 0x77u);
  EXPECT_EQ(get_sock_status(), 0);
}

// A closed session keeps its connection for the next session with that endpoint; a connection
// whose agent has been restarted since is never used again.
TEST_F(TargetAgentClientTest, ReopenedSessionsReuseOnlyConnectionsThatAreAlive) {
  SimProcess first({"--quiet"});
  SimProcess second({"--quiet"});
  Frame value(8);
  for (const uint64_t written : {0x1111ull, 0x2222ull}) {
    ASSERT_EQ(connect(written == 0x1111 ? first : second), 0);
    ASSERT_EQ(io_write(0x10, written, 8), 0);
    ASSERT_EQ(destroy_session(), 0);
  }
  ASSERT_EQ(connect(first), 0);
  ASSERT_EQ(io_read(0x10, value.data(), 8), 0);
  EXPECT_EQ(value[0], 0x11);
  ASSERT_EQ(destroy_session(), 0);
  ASSERT_TRUE(first.restart({"--quiet"})) << "port " << first.port() << " did not come free";
  ASSERT_EQ(connect(first), 0);
  ASSERT_EQ(io_read(0x10, value.data(), 8), 0);
  EXPECT_EQ(value[0], 0x00) << "the restarted agent's memory is empty";
}

// A host that switches away ends its session at the agent: an exclusive agent admits another
// host at once, and the first host's way back is refused as busy, honestly, until it is free.
TEST_F(TargetAgentClientTest, ClosedSessionEndsAtTheAgentAndKeepsNoOtherHostOut) {
  SimProcess exclusive({"--quiet", "--exclusive"});
  SimProcess other({"--quiet"});
  protocol::Request hello;
  hello.value = protocol::kProtocolVersion;
  protocol::Reply reply;
  test::WireConnection secondHost(exclusive.endpoint());

  ASSERT_EQ(connect(exclusive), 0);
  ASSERT_TRUE(secondHost.transact(hello, reply));
  EXPECT_EQ(reply.status, protocol::ReplyStatus::kBusy);
  ASSERT_EQ(connect(other), 0) << "a switch away, which closes the first session";
  ASSERT_TRUE(secondHost.transact(hello, reply));
  EXPECT_EQ(reply.status, protocol::ReplyStatus::kOk) << "the agent has forgotten the first host";
  EXPECT_EQ(connect(exclusive), code(Status::kBusy));
  secondHost.close();
  EXPECT_EQ(connect(exclusive), 0) << "free again once the second host has gone";
}

/// The descriptors of this process that are sockets.
size_t openSockets() {
  size_t sockets = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    sockets += std::filesystem::read_symlink(entry.path(), error).string().rfind("socket:", 0) == 0;
  }
  return sockets;
}

// A host that switches round robin between many agents keeps a connection to each, so a switch
// never reconnects; but never more than a quarter of the descriptors it may open.
TEST_F(TargetAgentClientTest, ParkedConnectionsFollowTheAgentsUsedWithinAQuarterOfTheDescriptorLimit) {
  constexpr size_t kAgents = 24;
  std::vector<std::unique_ptr<SimProcess>> agents;
  for (size_t i = 0; i < kAgents; ++i)
    agents.push_back(std::make_unique<SimProcess>(std::vector<std::string>{"--quiet"}));
  const auto roundRobin = [&agents](uint64_t seed) {
    int wrong = 0;
    for (int round = 0; round < 3; ++round) {
      for (size_t a = 0; a < agents.size(); ++a) {
        uint64_t readBack = 0;
        wrong += connect(*agents[a]) != 0 || io_write(0x100, seed + a, 8) != 0 ||
                 io_read(0x100, reinterpret_cast<uint8_t*>(&readBack), 8) != 0 || readBack != seed + a;
      }
    }
    return wrong;
  };
  const size_t before = openSockets();
  EXPECT_EQ(roundRobin(0x1000), 0);
  EXPECT_EQ(openSockets() - before, kAgents) << "one connection per agent, the session's among them";

  // With a lower descriptor limit the pool holds fewer than the agents: the others are closed as
  // they are parked. The child has given up the parent's sockets.
  test::ForkedChild child([&] {
    const size_t descriptors =
        static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
    const rlimit limit{descriptors + 40, descriptors + 40};
    const size_t bound = limit.rlim_cur / 4;
    if (bound >= kAgents || ::setrlimit(RLIMIT_NOFILE, &limit) != 0) return 3;
    if (roundRobin(0x2000) != 0) return 1;
    return openSockets() <= bound + 1 ? 0 : 2;
  });
  EXPECT_EQ(child.join().exitCode, 0);
}

// 0 ms is no deadline a call could keep: the library takes its default instead, which a late
// reply meets.
TEST_F(TargetAgentClientTest, DeadlineOfZeroMillisecondsIsTakenForTheDefault) {
  ::setenv("TA_AGENT_TIMEOUT_MS", "0", 1);
  ScriptedAgent agent;
  EXPECT_EQ(
      agent.handshake([](Frame&, auto&) { std::this_thread::sleep_for(std::chrono::milliseconds(100)); }), 0);
}

// No session is open: a call that looked for one before checking its arguments would answer
// kNoSession.
TEST_F(TargetAgentClientTest, InvalidArgumentsAreRefusedBeforeAnythingElse) {
  const std::string longName(64, 'r');
  uint8_t buffer[9];
  const int32_t invalid = code(Status::kInvalidArgument);
  EXPECT_EQ(io_write(0x100, 1, 9), invalid);
  EXPECT_EQ(io_read(0x100, buffer, 9), invalid);
  EXPECT_EQ(io_read(0x100, nullptr, 1), invalid);
  EXPECT_EQ(reg_write(nullptr, 1), invalid);
  EXPECT_EQ(reg_write("", 1), invalid);
  EXPECT_EQ(reg_write(longName.c_str(), 1), invalid);
  EXPECT_EQ(reg_read("r1", nullptr), invalid);
  EXPECT_EQ(ddr_reserve(64, nullptr), invalid);
  EXPECT_EQ(start_session("127.0.0.1", 0), invalid);
  EXPECT_EQ(start_session("127.0.0.1", 65536), invalid);
  EXPECT_EQ(start_session(nullptr, 4000), invalid);
}

TEST_F(TargetAgentClientTest, SessionThatCannotStartLeavesNone) {
  SimProcess refusing({"--refuse-sessions"});
  EXPECT_EQ(connect(refusing), code(Status::kSessionRefused));
  expectEveryCallFailsWith(Status::kNoSession);
  // A port held by a socket that does not listen: no other program can take it meanwhile, as it
  // could take a stopped simulator's.
  const int held = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in where{};
  where.sin_family = AF_INET;
  where.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof where;
  ASSERT_TRUE(::bind(held, reinterpret_cast<sockaddr*>(&where), sizeof where) == 0 &&
              ::getsockname(held, reinterpret_cast<sockaddr*>(&where), &length) == 0);
  EXPECT_EQ(start_session("127.0.0.1", ntohs(where.sin_port)), code(Status::kConnectionRefused))
      << "nobody listening";
  ::close(held);
  EXPECT_EQ(start_session("no-such-host.invalid", 4000), code(Status::kUnresolved));
  // Agents of another version: one refuses ours, the other accepts it but announces version 1.
  const std::pair<size_t, uint8_t> otherVersions[] = {
      {protocol::kHeaderSize, uint8_t(protocol::ReplyStatus::kVersionMismatch)},
      {protocol::kHeaderSize + 4, 1}};
  for (const auto& edit : otherVersions) {
    ScriptedAgent agent;
    EXPECT_EQ(agent.handshake([&edit](Frame& f, auto&) { f[edit.first] = edit.second; }),
              code(Status::kVersionMismatch));
    expectEveryCallFailsWith(Status::kNoSession);
  }
}

TEST_F(TargetAgentClientTest, LostConnectionFailsEveryCallWithoutASignalUntilClosed) {
  struct sigaction pipeAction {};
  ASSERT_EQ(::sigaction(SIGPIPE, nullptr, &pipeAction), 0);
  ASSERT_EQ(pipeAction.sa_handler, SIG_DFL) << "SIGPIPE must be able to end this program";
  for (const bool reset : {true, false}) {
    ScriptedAgent agent;
    ASSERT_EQ(agent.handshake(), 0);
    agent.wire().close(reset);
    // A send without MSG_NOSIGNAL on the socket that the reset broke would end this program.
    EXPECT_TRUE(!reset || io_write(0x10, 1, 1) == code(Status::kConnectionLost));
    // An idle session notices the end of stream.
    for (int i = 0; i < 500 && get_sock_status() == 0; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    expectEveryCallFailsWith(Status::kConnectionLost);
    EXPECT_EQ(destroy_session(), 0);
    expectEveryCallFailsWith(Status::kNoSession);
  }
}

// Each as the answer to a read: no data is handed back, and the session is closed.
TEST_F(TargetAgentClientTest, RepliesThatDoNotAnswerTheRequestEndTheSession) {
  ::setenv("TA_AGENT_TIMEOUT_MS", "300", 1);
  const struct {
    const char* name;
    void (*edit)(Frame&, test::WireConnection&);
    Status expected;  ///< kConnectionLost: the agent closes the connection after sending
  } cases[] = {
      {"another request's id", [](Frame& f, auto&) { ++f[4]; }, Status::kMalformedReply},
      // As long as an io_read's: it decodes, but answers another request.
      {"the reply of a reservation", [](Frame& f, auto&) { f[2] = 0x87; }, Status::kMalformedReply},
      {"a shorter reply", [](Frame& f, auto&) { f.resize(protocol::kHeaderSize + 4), f[8] = 4; },
       Status::kMalformedReply},
      {"one stray byte after the reply", [](Frame& f, auto&) { f.push_back(0); }, Status::kMalformedReply},
      {"reply cut short, then closed", [](Frame& f, auto&) { f.resize(protocol::kHeaderSize + 2); },
       Status::kConnectionLost},
      // Begun before the deadline, complete within a second deadline counted from its first
      // byte, which the call must not get.
      {"reply trickling past the deadline",
       [](Frame& f, test::WireConnection& wire) {
         std::this_thread::sleep_for(std::chrono::milliseconds(200));
         for (size_t i = 0; i < f.size() && wire.send(&f[i], 1); ++i)
           std::this_thread::sleep_for(std::chrono::milliseconds(8));
         f.clear();
       },
       Status::kTimeout},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string("case: ") + c.name);
    ScriptedAgent agent;
    ASSERT_EQ(agent.handshake(), 0);
    Frame buffer(8, 0xEE);
    auto reading = std::async(std::launch::async, [&buffer] { return io_read(0x10, buffer.data(), 8); });
    agent.respond(c.edit, c.expected == Status::kConnectionLost);
    EXPECT_EQ(reading.get(), code(c.expected));
    EXPECT_EQ(buffer, Frame(8, 0xEE));
    EXPECT_EQ(get_sock_status(), code(Status::kConnectionLost));
  }
}

// The child calls without a start_session of its own: its first call opens a connection to the
// session's endpoint, while the parent goes on with the connection it had. On one shared socket
// both would send the same request ids and take each other's replies.
TEST_F(TargetAgentClientTest, ForkedChildCallsOnAConnectionOfItsOwn) {
  SimProcess sim({"--quiet"});
  ASSERT_EQ(connect(sim), 0);
  const auto readsBackItsWrites = [](uint64_t at) {
    int wrong = 0;
    for (uint64_t written = 1; written <= 1000; ++written) {
      uint64_t readBack = 0;
      wrong += io_write(at, written, 8) != 0 || io_read(at, reinterpret_cast<uint8_t*>(&readBack), 8) != 0 ||
               readBack != written;
    }
    return wrong;
  };
  test::ForkedChild child([&] { return readsBackItsWrites(0x200) == 0 ? 0 : 1; });
  EXPECT_EQ(readsBackItsWrites(0x100), 0);
  EXPECT_EQ(child.join().exitCode, 0);
  Frame childs(8);
  ASSERT_EQ(io_read(0x200, childs.data(), 8), 0);
  EXPECT_EQ(childs, (Frame{0xE8, 0x03, 0, 0, 0, 0, 0, 0})) << "the child's last write, 1000";
}

TEST_F(TargetAgentClientTest, ConcurrentCallersNeverReceiveEachOthersReplies) {
  SimProcess sim({"--quiet"});
  ASSERT_EQ(connect(sim), 0);
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (uint64_t t = 0; t < 8; ++t) {
    threads.emplace_back([t, &wrong] {
      for (uint64_t written = t << 56; written < (t << 56) + 500; ++written) {
        uint64_t readBack = 0;
        wrong += io_write(t * 64, written, 8) != 0 ||
                 io_read(t * 64, reinterpret_cast<uint8_t*>(&readBack), 8) != 0 || readBack != written;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0) << "calls failed or were answered with another thread's data";
  EXPECT_EQ(get_sock_status(), 0);
}

}  // namespace
}  // namespace kvx::agent
