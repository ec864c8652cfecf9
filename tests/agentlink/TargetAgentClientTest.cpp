// The agent client library against a live simulated agent over loopback, and against an agent
// that the test plays itself for replies and closes that the simulator never produces.

#include "agent/TargetAgent.h"

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/agent/AgentStatus.h"
#include "platform/protocol/AgentProtocol.h"
#include "tests/support/SimProcess.h"

namespace {

using kvx::agent::Status;
using kvx::test::SimProcess;
namespace protocol = kvx::protocol;
using Clock = std::chrono::steady_clock;
using Frame = std::vector<uint8_t>;

constexpr int32_t code(Status status) { return static_cast<int32_t>(status); }
constexpr uint64_t kReserveBase = 0x80000000ull;

/// The far side of the wire played by the test itself. Serves one connection; every wait is
/// bounded by five seconds.
class ScriptedAgent {
 public:
  /// Changes the right reply into the one to send; an empty frame sends nothing.
  using Edit = std::function<void(Frame&)>;

  ScriptedAgent() : m_listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    const timeval limit{5, 0};
    if (::setsockopt(m_listener, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0 ||
        ::bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(m_listener, 1) != 0 ||
        ::getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      throw std::runtime_error("cannot listen");
    }
    m_port = ntohs(address.sin_port);
  }
  ~ScriptedAgent() {
    hangUp();
    ::close(m_listener);
  }
  ScriptedAgent(const ScriptedAgent&) = delete;
  ScriptedAgent& operator=(const ScriptedAgent&) = delete;

  /// Calls start_session on another thread and answers its Hello here as respond() does.
  /// Returns what start_session returned.
  int32_t handshake(const Edit& edit = {}, bool thenClose = false) {
    auto started = std::async(std::launch::async, [this] { return start_session("127.0.0.1", m_port); });
    // Bounded by the listener's SO_RCVTIMEO, which the connection inherits.
    m_connection = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
    respond(edit, thenClose);
    return started.get();
  }

  /// Waits for one request of the library and answers it with the right reply, changed by
  /// `edit`; then closes the connection if `thenClose`.
  void respond(const Edit& edit = {}, bool thenClose = false) {
    // The library sends each request in one write, which loopback delivers whole.
    uint8_t in[protocol::kMaxFrameSize];
    const ssize_t got = ::recv(m_connection, in, sizeof in, 0);
    protocol::Request request;
    EXPECT_TRUE(got > 0 && protocol::decodeRequest(in, static_cast<size_t>(got), request))
        << "no request, or a malformed one, from the library";
    protocol::Reply reply;
    reply.opcode = request.opcode;
    reply.id = request.id;
    reply.value = request.opcode == protocol::Opcode::kHello ? protocol::kProtocolVersion : 0;
    Frame frame(protocol::kMaxFrameSize);
    frame.resize(protocol::encodeReply(reply, frame.data(), frame.size()));
    if (edit) edit(frame);
    if (!frame.empty()) send(frame);
    if (thenClose) hangUp();
  }

  /// Sends `bytes`; false when the connection no longer takes them.
  bool send(const Frame& bytes) {
    return ::send(m_connection, bytes.data(), bytes.size(), MSG_NOSIGNAL) == ssize_t(bytes.size());
  }

  /// Ends the connection with an end of stream, as an agent that closes its socket does.
  void hangUp() {
    if (m_connection >= 0) ::close(m_connection);
    m_connection = -1;
  }

  /// Ends the connection the harshest way: end of stream first, then a reset, so the library's
  /// socket sits broken while nothing is asked of it, the state in which a send without
  /// MSG_NOSIGNAL raises SIGPIPE.
  void closeThenReset() {
    ::shutdown(m_connection, SHUT_WR);
    const linger reset{1, 0};
    ::setsockopt(m_connection, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    hangUp();
  }

 private:
  int m_listener;
  int m_connection = -1;
  uint16_t m_port = 0;
};

class TargetAgentClientTest : public ::testing::Test {
 protected:
  void TearDown() override {
    destroy_session();
    ::unsetenv("TA_AGENT_TIMEOUT_MS");
  }

  static int32_t connect(const SimProcess& sim) { return start_session(sim.address().c_str(), sim.port()); }

  static uint64_t read64(uint64_t address) {
    uint64_t value = 0;
    EXPECT_EQ(io_read(address, reinterpret_cast<uint8_t*>(&value), 8), 0) << "at " << address;
    return value;
  }

  /// Every call that needs a session, with valid arguments, each expected to answer `expected`.
  static void expectEveryCallFailsWith(int32_t expected) {
    uint8_t buffer[8] = {};
    uint64_t value = 0;
    EXPECT_EQ(get_sock_status(), expected);
    EXPECT_EQ(io_write(0x100, 1, 1), expected);
    EXPECT_EQ(io_read(0x100, buffer, 1), expected);
    EXPECT_EQ(reg_write("r1", 1), expected);
    EXPECT_EQ(reg_read("r1", &value), expected);
    EXPECT_EQ(ddr_reserve(64, &value), expected);
    EXPECT_EQ(ddr_unreserve(kReserveBase), expected);
    EXPECT_EQ(ddr_unreserve_all(), expected);
  }
};

// ---- Calls on a working session ----

TEST_F(TargetAgentClientTest, MemoryAndRegistersReadBackExactlyTheirWidth) {
  SimProcess sim;
  ASSERT_EQ(connect(sim), 0);
  const uint64_t value = 0x8877665544332211ull;
  for (uint32_t size = 0; size <= 8; ++size) {
    const uint64_t address = 0x1000 + size * 16;
    ASSERT_EQ(io_write(address, value, size), 0) << "size " << size;
    // Bytes past the write were never written and read as zero.
    uint64_t expected = 0;
    std::memcpy(&expected, &value, size);
    EXPECT_EQ(read64(address), expected) << "size " << size;
    // A read of `size` bytes fills exactly that many.
    uint8_t buffer[8];
    std::memset(buffer, 0xEE, sizeof buffer);
    ASSERT_EQ(io_read(address, buffer, size), 0);
    for (uint32_t i = 0; i < 8; ++i) {
      EXPECT_EQ(buffer[i], i < size ? reinterpret_cast<const uint8_t*>(&value)[i] : 0xEE) << "size " << size;
    }
  }
  // The top of the address space wraps to its bottom.
  ASSERT_EQ(io_write(0xFFFFFFFFFFFFFFFCull, value, 8), 0);
  EXPECT_EQ(read64(0), value >> 32);

  // ps is 32 bits wide: a read stores 4 bytes, and a value with a bit above them is refused.
  ASSERT_EQ(reg_write("ps", 0xFFFFFFFF), 0);
  EXPECT_EQ(reg_write("ps", 0x100000000), code(Status::kRefused));
  uint8_t buffer[8] = {0, 0, 0, 0, 0xEE, 0xEE, 0xEE, 0xEE};
  ASSERT_EQ(reg_read("ps", buffer), 0);
  EXPECT_EQ(Frame(buffer, buffer + 8), (Frame{0xFF, 0xFF, 0xFF, 0xFF, 0xEE, 0xEE, 0xEE, 0xEE}));
}

TEST_F(TargetAgentClientTest, RefusedAndInvalidCallsFailAloneAndKeepTheSession) {
  SimProcess sim({"--deny", "0x1000:0x10", "--memory-limit", "4096"});
  ASSERT_EQ(connect(sim), 0);
  const int32_t refused = code(Status::kRefused);
  uint8_t buffer[16] = {0xEE};
  uint64_t untouched = 0x77;
  EXPECT_EQ(io_read(0xFF8, buffer, 8), 0) << "ends just before the denied range";
  buffer[0] = 0xEE;
  EXPECT_EQ(io_read(0xFF9, buffer, 8), refused) << "last byte inside";
  EXPECT_EQ(buffer[0], 0xEE) << "a refused read hands back no data";
  EXPECT_EQ(io_write(0x100F, 1, 1), refused);
  EXPECT_EQ(io_write(0x0, 0x11, 1), 0);
  EXPECT_EQ(io_write(0x100000, 1, 1), refused) << "past the memory limit";
  for (const char* unknown : {"r64", "r01", "R1", "x0", "pc ", "r"}) {
    EXPECT_EQ(reg_read(unknown, &untouched), refused) << unknown;
    EXPECT_EQ(reg_write(unknown, 1), refused) << unknown;
  }
  EXPECT_EQ(ddr_reserve(0, &untouched), refused);
  EXPECT_EQ(ddr_reserve(~0ull, &untouched), refused);
  EXPECT_EQ(ddr_unreserve(kReserveBase), refused);
  EXPECT_EQ(untouched, 0x77u) << "a refused call leaves the destination alone";

  // Invalid arguments are rejected before anything is sent.
  const std::string longName(64, 'r');
  const int32_t invalid = code(Status::kInvalidArgument);
  EXPECT_EQ(io_write(0x100, 1, 9), invalid);
  EXPECT_EQ(io_read(0x100, buffer, 9), invalid);
  EXPECT_EQ(io_read(0x100, nullptr, 1), invalid);
  EXPECT_EQ(reg_write(nullptr, 1), invalid);
  EXPECT_EQ(reg_write("", 1), invalid);
  EXPECT_EQ(reg_write(longName.c_str(), 1), invalid);
  EXPECT_EQ(reg_read("r1", nullptr), invalid);
  EXPECT_EQ(reg_read(longName.c_str(), &untouched), invalid);
  EXPECT_EQ(ddr_reserve(64, nullptr), invalid);

  // Neither is a failure of the session.
  EXPECT_EQ(get_sock_status(), 0);
  EXPECT_EQ(read64(0x0), 0x11u);
}

// ---- Sessions ----

TEST_F(TargetAgentClientTest, CallsWithoutASessionFailAndClosingNothingIsHarmless) {
  EXPECT_EQ(destroy_session(), 0);
  EXPECT_EQ(destroy_session(), 0);
  expectEveryCallFailsWith(code(Status::kNoSession));
}

TEST_F(TargetAgentClientTest, NewSessionReplacesTheOpenOne) {
  SimProcess first;
  SimProcess second;
  ASSERT_EQ(connect(first), 0);
  ASSERT_EQ(io_write(0x100, 0xAA, 1), 0);
  ASSERT_EQ(connect(second), 0);
  EXPECT_EQ(read64(0x100), 0u) << "the second agent has its own memory";
  ASSERT_EQ(io_write(0x100, 0xBB, 1), 0);
  ASSERT_EQ(connect(first), 0);
  EXPECT_EQ(read64(0x100), 0xAAu);
}

TEST_F(TargetAgentClientTest, EndpointsThatCannotBeReachedFailToStart) {
  SimProcess refusing({"--refuse-sessions"});
  EXPECT_EQ(connect(refusing), code(Status::kRefused));
  refusing.stop();
  EXPECT_EQ(connect(refusing), code(Status::kCannotConnect)) << "nobody listening";
  EXPECT_EQ(start_session("no-such-host.invalid", 4000), code(Status::kCannotConnect));
  EXPECT_EQ(start_session("127.0.0.1", 0), code(Status::kInvalidArgument));
  EXPECT_EQ(start_session("127.0.0.1", 65536), code(Status::kInvalidArgument));
  EXPECT_EQ(start_session("", -1), code(Status::kInvalidArgument));
  EXPECT_EQ(start_session(nullptr, 4000), code(Status::kInvalidArgument));
  // Agents of another version: one accepts but announces version 1, the other refuses ours.
  const std::pair<size_t, uint8_t> otherVersions[] = {{4, 1},
                                                      {0, uint8_t(protocol::ReplyStatus::kVersionMismatch)}};
  for (const auto& edit : otherVersions) {
    ScriptedAgent agent;
    EXPECT_EQ(agent.handshake([&edit](Frame& f) { f[protocol::kHeaderSize + edit.first] = edit.second; }),
              code(Status::kVersionMismatch));
  }
  expectEveryCallFailsWith(code(Status::kNoSession));
}

// ---- A failing agent ----

TEST_F(TargetAgentClientTest, SessionToAKilledAgentFailsEveryCallUntilClosed) {
  SimProcess sim;
  ASSERT_EQ(connect(sim), 0);
  EXPECT_EQ(get_sock_status(), 0);
  sim.kill();
  const Clock::time_point end = Clock::now() + std::chrono::seconds(5);
  while (get_sock_status() == 0 && Clock::now() < end)
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  // Found lost once, the session stays lost without touching the network again.
  expectEveryCallFailsWith(code(Status::kConnectionLost));
  EXPECT_EQ(destroy_session(), 0);
  expectEveryCallFailsWith(code(Status::kNoSession));
}

TEST_F(TargetAgentClientTest, ReplyThatNeverComesTimesOutAndClosesTheSession) {
  ::setenv("TA_AGENT_TIMEOUT_MS", "300", 1);
  SimProcess sim({"--hang-after", "1"});
  ASSERT_EQ(connect(sim), 0);
  uint8_t buffer[8];
  const Clock::time_point start = Clock::now();
  EXPECT_EQ(io_read(0x10, buffer, 4), code(Status::kTimeout));
  // Well below the 5 s default: the variable was honoured.
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));
  expectEveryCallFailsWith(code(Status::kConnectionLost));

  // A handshake that is never answered times out the same way and leaves no session.
  SimProcess mute({"--hang-after", "0"});
  EXPECT_EQ(connect(mute), code(Status::kTimeout));
  expectEveryCallFailsWith(code(Status::kNoSession));
}

TEST_F(TargetAgentClientTest, CallsAfterThePeerResetFailWithoutSignal) {
  // A send without MSG_NOSIGNAL on the socket that the reset left broken would end this program.
  struct sigaction pipeAction {};
  ASSERT_EQ(::sigaction(SIGPIPE, nullptr, &pipeAction), 0);
  ASSERT_EQ(pipeAction.sa_handler, SIG_DFL) << "SIGPIPE must be able to end this program";
  ScriptedAgent agent;
  ASSERT_EQ(agent.handshake(), 0);
  agent.closeThenReset();
  EXPECT_EQ(io_write(0x10, 1, 1), code(Status::kConnectionLost));
  expectEveryCallFailsWith(code(Status::kConnectionLost));
}

TEST_F(TargetAgentClientTest, RepliesThatDoNotAnswerTheRequestEndTheSession) {
  const struct {
    const char* name;
    void (*edit)(Frame&);
    Status expected;  ///< kConnectionLost: the agent closes the connection after sending
  } cases[] = {
      {"another request's id", [](Frame& f) { ++f[4]; }, Status::kMalformedReply},
      {"the reply of a register read", [](Frame& f) { f[2] = 0x86; }, Status::kMalformedReply},
      {"a shorter reply",
       [](Frame& f) {
         f[8] = 4;
         f.resize(protocol::kHeaderSize + 4);
       },
       Status::kMalformedReply},
      {"length of 4 GiB", [](Frame& f) { std::fill(f.begin() + 8, f.begin() + 12, 0xFF); },
       Status::kMalformedReply},
      {"one stray byte after the reply", [](Frame& f) { f.push_back(0); }, Status::kMalformedReply},
      {"two replies at once",
       [](Frame& f) {
         const Frame once = f;
         f.insert(f.end(), once.begin(), once.end());
       },
       Status::kMalformedReply},
      {"header cut short, then closed", [](Frame& f) { f.resize(7); }, Status::kConnectionLost},
      {"reply cut short, then closed", [](Frame& f) { f.resize(protocol::kHeaderSize + 2); },
       Status::kConnectionLost},
      {"nothing, then closed", [](Frame& f) { f.clear(); }, Status::kConnectionLost},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string("case: ") + c.name);
    const bool thenClose = c.expected == Status::kConnectionLost;
    {
      // As the answer to the handshake: no session is left.
      ScriptedAgent agent;
      EXPECT_EQ(agent.handshake(c.edit, thenClose), code(c.expected));
      expectEveryCallFailsWith(code(Status::kNoSession));
    }
    // As the answer to a read: no data is handed back, and the session is closed.
    ScriptedAgent agent;
    ASSERT_EQ(agent.handshake(), 0);
    uint8_t buffer[8] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
    auto reading = std::async(std::launch::async, [&buffer] { return io_read(0x10, buffer, 8); });
    agent.respond(c.edit, thenClose);
    EXPECT_EQ(reading.get(), code(c.expected));
    EXPECT_EQ(buffer[0], 0xEE);
    EXPECT_EQ(get_sock_status(), code(Status::kConnectionLost));
  }
}

TEST_F(TargetAgentClientTest, ReplyInPiecesIsReassembledButMustCompleteInTime) {
  ::setenv("TA_AGENT_TIMEOUT_MS", "300", 1);
  ScriptedAgent agent;
  ASSERT_EQ(agent.handshake(), 0);
  uint64_t value = 0;
  const auto read = [&value] { return io_read(0x10, reinterpret_cast<uint8_t*>(&value), 8); };
  auto reading = std::async(std::launch::async, read);
  // The first five bytes go out alone, then respond() sends the rest.
  agent.respond([&agent](Frame& f) {
    std::memcpy(&f[protocol::kHeaderSize + 4], "\x01\x02\x03\x04\x05\x06\x07\x08", 8);
    agent.send({f.begin(), f.begin() + 5});
    // Gives the library time to take the first piece alone; the outcome does not depend on it.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    f.erase(f.begin(), f.begin() + 5);
  });
  EXPECT_EQ(reading.get(), 0);
  EXPECT_EQ(value, 0x0807060504030201ull);

  // A reply that begins before the deadline and trickles past it: it would be complete well
  // within a second deadline counted from its first byte, which the call must not get.
  reading = std::async(std::launch::async, read);
  agent.respond([&agent](Frame& f) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    for (size_t i = 0; i < f.size() && agent.send({f[i]}); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(8));
    f.clear();
  });
  EXPECT_EQ(reading.get(), code(Status::kTimeout));
  EXPECT_EQ(get_sock_status(), code(Status::kConnectionLost));
}

// ---- Threads ----

TEST_F(TargetAgentClientTest, ConcurrentCallersNeverReceiveEachOthersReplies) {
  SimProcess sim({"--quiet"});
  ASSERT_EQ(connect(sim), 0);
  std::atomic<int> mismatches{0};
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([t, &mismatches, &failures] {
      const uint64_t address = 0x10000 + static_cast<uint64_t>(t) * 64;
      const std::string reg = "r" + std::to_string(t);
      for (uint64_t round = 0; round < 500; ++round) {
        const uint64_t written = static_cast<uint64_t>(t) << 56 | round;
        uint64_t readBack = 0;
        uint64_t regBack = 0;
        if (io_write(address, written, 8) != 0 ||
            io_read(address, reinterpret_cast<uint8_t*>(&readBack), 8) != 0 ||
            reg_write(reg.c_str(), ~written) != 0 || reg_read(reg.c_str(), &regBack) != 0) {
          ++failures;
          return;
        }
        if (readBack != written || regBack != ~written) ++mismatches;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_EQ(get_sock_status(), 0);
}

}  // namespace
