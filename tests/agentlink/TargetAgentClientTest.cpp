// The agent client library against a live simulated agent over loopback.

#include "agent/TargetAgent.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
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
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/agent/AgentStatus.h"
#include "platform/protocol/AgentProtocol.h"
#include "tests/support/SimProcess.h"

namespace {

using kvx::test::SimProcess;
using target_agent::Status;
namespace protocol = kvx::protocol;
using Clock = std::chrono::steady_clock;

constexpr int32_t code(Status status) { return static_cast<int32_t>(status); }
constexpr uint64_t kReserveBase = 0x80000000ull;
constexpr uint64_t kReserveSize = 16ull << 20;

/// Polls `condition` until it holds or `limit` passes; for states that the kernel or another
/// process reaches asynchronously.
bool eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds limit = std::chrono::seconds(5)) {
  const Clock::time_point end = Clock::now() + limit;
  while (!condition()) {
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

/// The far side of the wire played by the test itself, for replies and closes that the
/// simulator never produces. Serves one connection; every wait is bounded by five seconds.
class ScriptedAgent {
 public:
  ScriptedAgent() : m_listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(m_listener, 1) != 0 ||
        ::getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      throw std::runtime_error("cannot listen");
    }
    m_port = ntohs(address.sin_port);
  }
  ~ScriptedAgent() {
    if (m_connection >= 0) ::close(m_connection);
    ::close(m_listener);
  }
  ScriptedAgent(const ScriptedAgent&) = delete;
  ScriptedAgent& operator=(const ScriptedAgent&) = delete;

  using Answer = std::function<std::vector<uint8_t>(const protocol::Request&)>;

  /// Opens a session with this agent: start_session on another thread, the handshake here.
  void startSession() {
    int32_t status = -1;
    ASSERT_NO_FATAL_FAILURE(handshake(
        [](const protocol::Request& hello) {
          protocol::Reply reply;
          reply.opcode = protocol::Opcode::kHello;
          reply.id = hello.id;
          reply.value = protocol::kProtocolVersion;
          return encode(reply);
        },
        false, status));
    ASSERT_EQ(status, 0);
  }

  /// Calls start_session on another thread and answers its Hello here with the bytes `answer`
  /// makes of it, then closes the connection if `thenClose`. `status` receives the result.
  void handshake(const Answer& answer, bool thenClose, int32_t& status) {
    auto started = std::async(std::launch::async, [this] { return start_session("127.0.0.1", m_port); });
    m_connection = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
    ASSERT_GE(m_connection, 0);
    timeval limit{5, 0};
    ::setsockopt(m_connection, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    const int on = 1;
    ::setsockopt(m_connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const std::vector<uint8_t> bytes = answer(receive());
    if (!bytes.empty()) send(bytes);
    if (thenClose) hangUp();
    status = started.get();
  }

  /// Waits for one request frame of the library and decodes it.
  protocol::Request receive() {
    uint8_t frame[protocol::kMaxFrameSize];
    size_t got = 0;
    protocol::FrameHeader header;
    protocol::Request request;
    while (got < protocol::kHeaderSize || got < protocol::kHeaderSize + header.payloadLength) {
      const ssize_t n = ::recv(m_connection, frame + got, sizeof frame - got, 0);
      if (n <= 0) break;
      got += static_cast<size_t>(n);
      if (got >= protocol::kHeaderSize && !protocol::decodeHeader(frame, got, header)) break;
    }
    EXPECT_TRUE(protocol::decodeRequest(frame, got, request));
    return request;
  }

  void send(const std::vector<uint8_t>& bytes) {
    EXPECT_EQ(::send(m_connection, bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize_t(bytes.size()));
  }

  static std::vector<uint8_t> encode(const protocol::Reply& reply) {
    std::vector<uint8_t> frame(protocol::kMaxFrameSize);
    frame.resize(protocol::encodeReply(reply, frame.data(), frame.size()));
    return frame;
  }

  /// Ends the connection with an end of stream, as an agent that closes its socket does.
  void hangUp() {
    ::close(m_connection);
    m_connection = -1;
  }

  /// Ends the connection the harshest way: end of stream first, then a reset, so the library's
  /// socket sits broken while nothing is asked of it.
  void closeThenReset() {
    ::shutdown(m_connection, SHUT_WR);
    uint8_t byte;
    EXPECT_EQ(::recv(m_connection, &byte, 1, MSG_PEEK | MSG_DONTWAIT), -1) << "the library sent nothing";
    const linger reset{1, 0};
    ::setsockopt(m_connection, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    ::close(m_connection);
    m_connection = -1;
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

// ---- Data accesses ----

TEST_F(TargetAgentClientTest, MemoryReadsBackWhatWasWrittenAtEveryWidth) {
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
  EXPECT_EQ(read64(0xFFFFFFFFFFFFFFFCull), value);
  EXPECT_EQ(read64(0), value >> 32);
}

TEST_F(TargetAgentClientTest, BadArgumentsAreRejectedWithoutDisturbingTheSession) {
  SimProcess sim;
  ASSERT_EQ(connect(sim), 0);
  uint8_t buffer[16] = {};
  uint64_t value = 0;
  const std::string longName(64, 'r');
  const int32_t invalid = code(Status::kInvalidArgument);
  EXPECT_EQ(io_write(0x100, 1, 9), invalid);
  EXPECT_EQ(io_read(0x100, buffer, 9), invalid);
  EXPECT_EQ(io_read(0x100, nullptr, 1), invalid);
  EXPECT_EQ(reg_write(nullptr, 1), invalid);
  EXPECT_EQ(reg_write("", 1), invalid);
  EXPECT_EQ(reg_write(longName.c_str(), 1), invalid);
  EXPECT_EQ(reg_read("r1", nullptr), invalid);
  EXPECT_EQ(reg_read(longName.c_str(), &value), invalid);
  EXPECT_EQ(ddr_reserve(64, nullptr), invalid);

  EXPECT_EQ(get_sock_status(), 0);
  EXPECT_EQ(io_write(0x100, 0x5A, 1), 0);
  EXPECT_EQ(read64(0x100), 0x5Au);
}

TEST_F(TargetAgentClientTest, AccessesTouchingADeniedRangeAreRefused) {
  SimProcess sim({"--deny", "0x1000:0x10"});
  ASSERT_EQ(connect(sim), 0);
  uint8_t buffer[8];
  EXPECT_EQ(io_read(0xFF8, buffer, 8), 0) << "ends just before the range";
  EXPECT_EQ(io_read(0xFF9, buffer, 8), code(Status::kRefused)) << "last byte inside";
  EXPECT_EQ(io_write(0x100F, 1, 1), code(Status::kRefused));
  EXPECT_EQ(io_write(0x1010, 1, 8), 0) << "starts just after the range";
  // A refusal is an answer: the session stays up.
  EXPECT_EQ(get_sock_status(), 0);
}

TEST_F(TargetAgentClientTest, WritesNeedingMemoryPastTheLimitAreRefusedWhole) {
  SimProcess sim({"--memory-limit", "4096"});
  ASSERT_EQ(connect(sim), 0);
  EXPECT_EQ(io_write(0x0, 0x11, 1), 0);
  EXPECT_EQ(io_write(0x800, 0x22, 1), 0) << "same page";
  EXPECT_EQ(io_write(0x2000, 0x33, 1), code(Status::kRefused)) << "a second page";
  EXPECT_EQ(read64(0x2000), 0u) << "reads need no memory";
  // Straddles the held page and a new one: nothing of it is written.
  EXPECT_EQ(io_write(0xFFC, 0x0102030405060708ull, 8), code(Status::kRefused));
  EXPECT_EQ(read64(0xFF8), 0u);
}

TEST_F(TargetAgentClientTest, RegistersReadBackWhatWasWrittenAndUnknownNamesAreRefused) {
  SimProcess sim;
  ASSERT_EQ(connect(sim), 0);
  std::vector<std::string> names = {"pc", "sp", "ra", "ps"};
  for (int i = 0; i < 64; ++i) names.push_back("r" + std::to_string(i));
  for (size_t i = 0; i < names.size(); ++i) {
    ASSERT_EQ(reg_write(names[i].c_str(), 0x0100000000000000ull * (i + 1) + i), 0) << names[i];
  }
  for (size_t i = 0; i < names.size(); ++i) {
    // reg_read stores all 8 bytes, whatever the destination held.
    uint64_t value = ~0ull;
    ASSERT_EQ(reg_read(names[i].c_str(), &value), 0) << names[i];
    EXPECT_EQ(value, 0x0100000000000000ull * (i + 1) + i) << names[i];
  }
  for (const char* unknown : {"r64", "r01", "R1", "x0", "pc ", "r"}) {
    uint64_t value = 0x77;
    EXPECT_EQ(reg_read(unknown, &value), code(Status::kRefused)) << unknown;
    EXPECT_EQ(value, 0x77u) << "a refused read leaves the destination alone: " << unknown;
    EXPECT_EQ(reg_write(unknown, 1), code(Status::kRefused)) << unknown;
  }
}

TEST_F(TargetAgentClientTest, ReservationsAreAlignedFirstFitAndReleasable) {
  SimProcess sim;
  ASSERT_EQ(connect(sim), 0);
  uint64_t a = 0, b = 0, c = 0, d = 0;
  ASSERT_EQ(ddr_reserve(1, &a), 0);
  ASSERT_EQ(ddr_reserve(100, &b), 0);
  ASSERT_EQ(ddr_reserve(64, &c), 0);
  EXPECT_EQ(a, kReserveBase);
  EXPECT_EQ(b, kReserveBase + 64);
  EXPECT_EQ(c, kReserveBase + 64 + 128) << "100 bytes take two 64-byte units";

  ASSERT_EQ(ddr_unreserve(a), 0);
  ASSERT_EQ(ddr_reserve(10, &d), 0);
  EXPECT_EQ(d, kReserveBase) << "the first gap that fits is reused";

  const int32_t refused = code(Status::kRefused);
  EXPECT_EQ(ddr_unreserve(b + 64), refused) << "inside a block, not its start";
  EXPECT_EQ(ddr_unreserve(kReserveBase - 64), refused) << "below the region";
  ASSERT_EQ(ddr_unreserve(b), 0);
  EXPECT_EQ(ddr_unreserve(b), refused) << "released twice";

  uint64_t untouched = 0x1234;
  EXPECT_EQ(ddr_reserve(0, &untouched), refused);
  EXPECT_EQ(ddr_reserve(kReserveSize, &untouched), refused) << "the region is partly taken";
  EXPECT_EQ(ddr_reserve(~0ull, &untouched), refused);
  EXPECT_EQ(untouched, 0x1234u);

  ASSERT_EQ(ddr_unreserve_all(), 0);
  ASSERT_EQ(ddr_reserve(kReserveSize, &a), 0) << "release-all empties the region";
  EXPECT_EQ(a, kReserveBase);
  EXPECT_EQ(ddr_reserve(1, &b), refused) << "the region is full";
}

// ---- Sessions ----

TEST_F(TargetAgentClientTest, CallsWithoutASessionFailAndClosingNothingIsHarmless) {
  EXPECT_EQ(destroy_session(), 0);
  EXPECT_EQ(destroy_session(), 0);
  expectEveryCallFailsWith(code(Status::kNoSession));

  SimProcess sim;
  ASSERT_EQ(connect(sim), 0);
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
  uint16_t deadPort = 0;
  {
    SimProcess gone;
    deadPort = gone.port();
  }
  EXPECT_EQ(start_session("127.0.0.1", deadPort), code(Status::kCannotConnect));
  EXPECT_EQ(start_session("no-such-host.invalid", 4000), code(Status::kCannotConnect));
  EXPECT_EQ(start_session("127.0.0.1", 0), code(Status::kInvalidArgument));
  EXPECT_EQ(start_session("127.0.0.1", 65536), code(Status::kInvalidArgument));
  EXPECT_EQ(start_session("", -1), code(Status::kInvalidArgument));
  EXPECT_EQ(start_session(nullptr, 4000), code(Status::kInvalidArgument));
  expectEveryCallFailsWith(code(Status::kNoSession));
}

TEST_F(TargetAgentClientTest, HostNamesAndIpv6AddressesAreResolved) {
  SimProcess sim;
  ASSERT_EQ(start_session("localhost", sim.port()), 0);
  EXPECT_EQ(io_write(0x10, 1, 1), 0);

  std::unique_ptr<SimProcess> sim6;
  try {
    sim6 = std::make_unique<SimProcess>(std::vector<std::string>{"--bind", "::1"});
  } catch (const std::runtime_error& error) {
    GTEST_SKIP() << "no IPv6 loopback here: " << error.what();
  }
  ASSERT_EQ(start_session("::1", sim6->port()), 0);
  EXPECT_EQ(read64(0x10), 0u) << "a different agent";
}

TEST_F(TargetAgentClientTest, RefusedHandshakeLeavesNoSession) {
  SimProcess sim({"--refuse-sessions"});
  EXPECT_EQ(connect(sim), code(Status::kRefused));
  expectEveryCallFailsWith(code(Status::kNoSession));
}

// ---- A failing agent ----

TEST_F(TargetAgentClientTest, SockStatusTurnsNonZeroWhenTheAgentStops) {
  SimProcess sim;
  ASSERT_EQ(connect(sim), 0);
  EXPECT_EQ(get_sock_status(), 0);
  EXPECT_EQ(sim.stop(), 0) << "the simulator shuts down cleanly";
  EXPECT_TRUE(eventually([] { return get_sock_status() != 0; }));
  // Found lost once, the session stays lost without touching the network again.
  expectEveryCallFailsWith(code(Status::kConnectionLost));
}

TEST_F(TargetAgentClientTest, SessionReopensAfterTheAgentRestartsOnItsPort) {
  auto sim = std::make_unique<SimProcess>();
  const std::string port = std::to_string(sim->port());
  ASSERT_EQ(connect(*sim), 0);
  ASSERT_EQ(io_write(0x40, 0x99, 1), 0);
  sim->kill();
  ASSERT_TRUE(eventually([] { return get_sock_status() != 0; }));

  sim = std::make_unique<SimProcess>(std::vector<std::string>{"--port", port});
  ASSERT_EQ(connect(*sim), 0);
  EXPECT_EQ(get_sock_status(), 0);
  EXPECT_EQ(read64(0x40), 0u) << "a new agent starts with empty memory";
}

TEST_F(TargetAgentClientTest, AgentDroppingTheConnectionFailsTheNextCall) {
  SimProcess sim({"--drop-after", "2"});
  ASSERT_EQ(connect(sim), 0);
  ASSERT_EQ(io_write(0x10, 1, 1), 0);
  uint8_t buffer[8];
  EXPECT_EQ(io_read(0x10, buffer, 1), code(Status::kConnectionLost));
  expectEveryCallFailsWith(code(Status::kConnectionLost));
  // The agent itself is still there for a new session.
  ASSERT_EQ(connect(sim), 0);
  EXPECT_EQ(read64(0x10), 1u);
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

TEST_F(TargetAgentClientTest, CallsAfterTheAgentWasKilledFailFast) {
  SimProcess sim;
  ASSERT_EQ(connect(sim), 0);
  sim.kill();
  uint8_t buffer[8];
  EXPECT_EQ(io_read(0x10, buffer, 1), code(Status::kConnectionLost));
  expectEveryCallFailsWith(code(Status::kConnectionLost));
  EXPECT_EQ(destroy_session(), 0);
  expectEveryCallFailsWith(code(Status::kNoSession));
}

// ---- Replies and closes that only a scripted agent produces ----

TEST_F(TargetAgentClientTest, CallsAfterThePeerResetFailWithoutSignal) {
  // SIGPIPE keeps its default action in this program: a send without MSG_NOSIGNAL on the socket
  // that the reset left broken would end it here.
  ScriptedAgent agent;
  ASSERT_NO_FATAL_FAILURE(agent.startSession());
  agent.closeThenReset();
  EXPECT_EQ(io_write(0x10, 1, 1), code(Status::kConnectionLost));
  expectEveryCallFailsWith(code(Status::kConnectionLost));
}

TEST_F(TargetAgentClientTest, RepliesThatDoNotAnswerTheRequestCloseTheSession) {
  using Frame = std::vector<uint8_t>;
  const auto answer = [](const protocol::Request& request) {
    protocol::Reply reply;
    reply.opcode = request.opcode;
    reply.id = request.id;
    return reply;
  };
  /// The right answer with one byte changed.
  const auto patched = [&](size_t offset, uint8_t value) {
    return [=](const protocol::Request& request) {
      Frame frame = ScriptedAgent::encode(answer(request));
      frame[offset] = value;
      return frame;
    };
  };
  /// The first `length` bytes of the right answer.
  const auto cut = [&](size_t length) {
    return [=](const protocol::Request& request) {
      Frame frame = ScriptedAgent::encode(answer(request));
      frame.resize(length);
      return frame;
    };
  };
  struct Case {
    const char* name;
    std::function<Frame(const protocol::Request&)> reply;
    /// The agent closes the connection after sending the reply.
    bool thenClose;
    Status expected;
  };
  const Case cases[] = {
      {"another request's id",
       [&](const protocol::Request& request) {
         protocol::Reply reply = answer(request);
         ++reply.id;
         return ScriptedAgent::encode(reply);
       },
       false, Status::kMalformedReply},
      {"another opcode of the same length",
       [&](const protocol::Request& request) {
         protocol::Reply reply = answer(request);
         reply.opcode = protocol::Opcode::kRegRead;
         return ScriptedAgent::encode(reply);
       },
       false, Status::kMalformedReply},
      {"a shorter reply",
       [&](const protocol::Request& request) {
         protocol::Reply reply = answer(request);
         reply.opcode = protocol::Opcode::kIoWrite;
         return ScriptedAgent::encode(reply);
       },
       false, Status::kMalformedReply},
      {"bad magic", patched(0, 'X'), false, Status::kMalformedReply},
      {"reply bit missing", patched(2, static_cast<uint8_t>(protocol::Opcode::kIoRead)), false,
       Status::kMalformedReply},
      {"unknown reply opcode", patched(2, 0x8A), false, Status::kMalformedReply},
      {"reply to goodbye", patched(2, 0x82), false, Status::kMalformedReply},
      {"reserved byte set", patched(3, 1), false, Status::kMalformedReply},
      {"length one past the maximum", patched(8, protocol::kMaxPayloadSize + 1), false,
       Status::kMalformedReply},
      {"length of 4 GiB",
       [&](const protocol::Request& request) {
         Frame frame = ScriptedAgent::encode(answer(request));
         std::fill(frame.begin() + 8, frame.begin() + 12, 0xFF);
         return frame;
       },
       false, Status::kMalformedReply},
      {"one stray byte after the reply",
       [&](const protocol::Request& request) {
         Frame frame = ScriptedAgent::encode(answer(request));
         frame.push_back(0);
         return frame;
       },
       false, Status::kMalformedReply},
      {"two replies at once",
       [&](const protocol::Request& request) {
         Frame frame = ScriptedAgent::encode(answer(request));
         frame.insert(frame.end(), frame.begin(), frame.end());
         return frame;
       },
       false, Status::kMalformedReply},
      {"header cut short, then closed", cut(7), true, Status::kConnectionLost},
      {"reply cut short, then closed", cut(protocol::kHeaderSize + 6), true, Status::kConnectionLost},
      {"nothing, then closed", cut(0), true, Status::kConnectionLost},
  };
  for (const Case& c : cases) {
    ScriptedAgent agent;
    ASSERT_NO_FATAL_FAILURE(agent.startSession()) << c.name;
    uint8_t buffer[8] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
    auto reading = std::async(std::launch::async, [&buffer] { return io_read(0x10, buffer, 8); });
    const Frame frame = c.reply(agent.receive());
    if (!frame.empty()) agent.send(frame);
    if (c.thenClose) agent.hangUp();
    EXPECT_EQ(reading.get(), code(c.expected)) << c.name;
    EXPECT_EQ(buffer[0], 0xEE) << "a failed read hands back no data: " << c.name;
    EXPECT_EQ(get_sock_status(), code(Status::kConnectionLost)) << c.name;
  }
}

TEST_F(TargetAgentClientTest, MalformedHandshakeReplyLeavesNoSession) {
  const auto helloReply = [](const protocol::Request& hello) {
    protocol::Reply reply;
    reply.opcode = protocol::Opcode::kHello;
    reply.id = hello.id;
    reply.value = protocol::kProtocolVersion;
    return ScriptedAgent::encode(reply);
  };
  struct Case {
    const char* name;
    ScriptedAgent::Answer answer;
    bool thenClose;
    Status expected;
  };
  const Case cases[] = {
      {"bad magic",
       [&](const protocol::Request& hello) {
         std::vector<uint8_t> frame = helloReply(hello);
         frame[0] = 'X';
         return frame;
       },
       false, Status::kMalformedReply},
      {"another id",
       [&](const protocol::Request& hello) {
         std::vector<uint8_t> frame = helloReply(hello);
         ++frame[4];
         return frame;
       },
       false, Status::kMalformedReply},
      {"an io-write reply",
       [](const protocol::Request& hello) {
         protocol::Reply reply;
         reply.opcode = protocol::Opcode::kIoWrite;
         reply.id = hello.id;
         return ScriptedAgent::encode(reply);
       },
       false, Status::kMalformedReply},
      {"cut short, then closed",
       [&](const protocol::Request& hello) {
         std::vector<uint8_t> frame = helloReply(hello);
         frame.resize(protocol::kHeaderSize + 2);
         return frame;
       },
       true, Status::kConnectionLost},
  };
  for (const Case& c : cases) {
    ScriptedAgent agent;
    int32_t status = 0;
    ASSERT_NO_FATAL_FAILURE(agent.handshake(c.answer, c.thenClose, status)) << c.name;
    EXPECT_EQ(status, code(c.expected)) << c.name;
    expectEveryCallFailsWith(code(Status::kNoSession));
  }
}

TEST_F(TargetAgentClientTest, ReplyInPiecesIsReassembledButMustCompleteInTime) {
  ::setenv("TA_AGENT_TIMEOUT_MS", "300", 1);
  ScriptedAgent agent;
  ASSERT_NO_FATAL_FAILURE(agent.startSession());
  const uint64_t expected = 0x0807060504030201ull;
  uint64_t value = 0;
  auto reading = std::async(std::launch::async,
                            [&value] { return io_read(0x10, reinterpret_cast<uint8_t*>(&value), 8); });
  protocol::Reply reply;
  reply.opcode = protocol::Opcode::kIoRead;
  reply.id = agent.receive().id;
  std::memcpy(reply.data, &expected, 8);
  const std::vector<uint8_t> frame = ScriptedAgent::encode(reply);
  agent.send({frame.begin(), frame.begin() + 5});
  // Gives the library time to take the first piece alone; the outcome does not depend on it.
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  agent.send({frame.begin() + 5, frame.end()});
  EXPECT_EQ(reading.get(), 0);
  EXPECT_EQ(value, expected);

  // Half a reply, then silence.
  reading = std::async(std::launch::async,
                       [&value] { return io_read(0x10, reinterpret_cast<uint8_t*>(&value), 8); });
  reply.id = agent.receive().id;
  const std::vector<uint8_t> second = ScriptedAgent::encode(reply);
  const Clock::time_point start = Clock::now();
  agent.send({second.begin(), second.begin() + 14});
  EXPECT_EQ(reading.get(), code(Status::kTimeout));
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));
  EXPECT_EQ(get_sock_status(), code(Status::kConnectionLost));
}

// ---- Threads ----

TEST_F(TargetAgentClientTest, ConcurrentCallersNeverReceiveEachOthersReplies) {
  SimProcess sim({"--quiet"});
  ASSERT_EQ(connect(sim), 0);
  constexpr int kThreads = 8;
  constexpr uint64_t kRounds = 500;
  std::atomic<int> mismatches{0};
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &mismatches, &failures] {
      const uint64_t address = 0x10000 + static_cast<uint64_t>(t) * 64;
      const std::string reg = "r" + std::to_string(t);
      for (uint64_t round = 0; round < kRounds; ++round) {
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
