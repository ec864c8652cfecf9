// What a host sees when its agent fails under it: killed, resetting the connection, silent,
// dropping the connection, refusing sessions, or gone and back on the same port. In every case
// the access throws vorn::Exception with the plug-in's message, within the agent library's reply
// timeout, and the host process lives on.
//
// The session is switched only when a process's endpoint differs from the open session's; the
// flag that says whether that session is still up takes no part. So once the session to an
// endpoint has failed, accesses through that endpoint keep failing until an access through
// another endpoint has switched the session away and back. These tests pin that behaviour down.

#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "agent/TaProcessKVX.h"
#include "platform/protocol/AgentProtocol.h"
#include "tests/reliability/HostWatch.h"
#include "tests/support/SimProcess.h"

namespace vorn {
namespace {

using kvx::test::SimProcess;
using std::chrono::milliseconds;
namespace protocol = kvx::protocol;
using test::at;
using test::CallOutcome;
using test::watch;

const char* const kTimeoutVariable = "TA_AGENT_TIMEOUT_MS";
/// The reply timeout these tests set, far below the library's default of five seconds.
const char* const kShortTimeoutMs = "300";
/// How long a call may take before the watchdog gives up on it: the timeout many times over,
/// so that a slow sanitizer build never trips it, yet a call that waits forever fails the test.
constexpr milliseconds kWatchLimit{10000};

boost::shared_ptr<TaProcess> processFor(const SimProcess& sim) {
  return test::processFor(sim.address(), sim.port());
}

/// The four data accesses, each expected to throw its own message within the watch limit.
void expectEveryAccessThrows(const boost::shared_ptr<TaProcess>& process, const std::string& context) {
  const uint64_t value = 0x1234;
  const struct {
    std::function<void()> call;
    std::string message;
  } accesses[] = {
      {[process, value] { process->write_mem(at(0x10), 1, 8, &value); },
       "Cannot write address 10 with memory space logger"},
      {[process] {
         uint64_t out = 0;
         process->read_mem(at(0x18), 1, 4, &out);
       },
       "Cannot read address 18 with memory space logger"},
      {[process, value] { process->write_register("pc", 1, 8, &value); }, "Cannot write register pc"},
      {[process] {
         uint64_t out = 0;
         process->read_register("r7", 1, 8, &out);
       },
       "Cannot read register r7"},
  };
  for (const auto& access : accesses) {
    const CallOutcome outcome = watch(access.call, kWatchLimit);
    ASSERT_TRUE(outcome.returned) << context << ": " << access.message;
    EXPECT_TRUE(outcome.threwVorn) << context << ": " << outcome;
    EXPECT_EQ(outcome.message, access.message) << context;
    EXPECT_EQ(outcome.file, "TaProcessKVX.cpp") << context;
  }
}

uint64_t read64(TaProcess& process, uint64_t address) {
  uint64_t value = 0;
  process.read_mem(at(address), 1, 8, &value);
  return value;
}

/// An agent played by the test: on one connection it answers the handshake and one request,
/// then closes the connection and resets it, so that the host's socket is broken while nothing
/// is asked of it: the state in which a send without MSG_NOSIGNAL raises SIGPIPE.
class ResettingAgent {
 public:
  ResettingAgent() : m_listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
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
    m_thread = std::thread([this] { serve(); });
  }
  ~ResettingAgent() {
    ::shutdown(m_listener, SHUT_RDWR);
    m_thread.join();
    ::close(m_listener);
  }
  ResettingAgent(const ResettingAgent&) = delete;
  ResettingAgent& operator=(const ResettingAgent&) = delete;

  uint16_t port() const { return m_port; }
  /// Waits until the connection has been reset.
  bool awaitReset() { return m_reset.get_future().wait_for(kWatchLimit) == std::future_status::ready; }

 private:
  void serve() {
    const int connection = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) return;
    // Bounds every wait, should the host stop talking midway.
    const timeval limit{5, 0};
    ::setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    for (int answered = 0; answered < 2; ++answered) {
      uint8_t frame[protocol::kMaxFrameSize];
      size_t got = 0;
      protocol::FrameHeader header;
      while (got < protocol::kHeaderSize || (protocol::decodeHeader(frame, got, header) &&
                                             got < protocol::kHeaderSize + header.payloadLength)) {
        const ssize_t n = ::recv(connection, frame + got, sizeof frame - got, 0);
        if (n <= 0) break;
        got += static_cast<size_t>(n);
      }
      protocol::Request request;
      if (!protocol::decodeRequest(frame, got, request)) break;
      protocol::Reply reply;
      reply.opcode = request.opcode;
      reply.id = request.id;
      reply.value = request.opcode == protocol::Opcode::kHello ? protocol::kProtocolVersion : 0;
      uint8_t out[protocol::kMaxFrameSize];
      const size_t length = protocol::encodeReply(reply, out, sizeof out);
      if (::send(connection, out, length, MSG_NOSIGNAL) != static_cast<ssize_t>(length)) break;
    }
    // End of stream first, then the reset: a socket that has seen both reports EPIPE to the
    // next send, which is what raises the signal.
    ::shutdown(connection, SHUT_WR);
    const linger reset{1, 0};
    ::setsockopt(connection, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    ::close(connection);
    m_reset.set_value();
  }

  int m_listener;
  uint16_t m_port = 0;
  std::promise<void> m_reset;
  std::thread m_thread;
};

class AgentFaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Whatever an earlier test in this program left open is switched away from.
    TaProcessKVX::m_sharedConnection = KVXConnection();
    ::unsetenv(kTimeoutVariable);
  }
  void TearDown() override { ::unsetenv(kTimeoutVariable); }
};

TEST_F(AgentFaultTest, AgentKilledMidRunFailsTheNextAccessAndTheHostLivesOn) {
  // SIGPIPE keeps its default action here: a write to the dead agent's socket that raised it
  // would end this program.
  struct sigaction pipeAction {};
  ASSERT_EQ(::sigaction(SIGPIPE, nullptr, &pipeAction), 0);
  ASSERT_EQ(pipeAction.sa_handler, SIG_DFL);

  SimProcess sim({"--quiet"});
  auto process = processFor(sim);
  auto done = std::make_shared<std::atomic<uint64_t>>(0);
  auto lastAddress = std::make_shared<std::atomic<uint64_t>>(0);
  std::thread killer([&sim, done] {
    const auto giveUp = std::chrono::steady_clock::now() + kWatchLimit / 2;
    while (done->load() < 200 && std::chrono::steady_clock::now() < giveUp) {
      std::this_thread::sleep_for(milliseconds(1));
    }
    sim.kill();
  });
  // A run in progress: writes and reads until the agent dies under it.
  const CallOutcome run = watch(
      [process, done, lastAddress] {
        for (uint64_t i = 0;; ++i) {
          const uint64_t address = 0x1000 + 8 * (i % 512);
          lastAddress->store(address);
          process->write_mem(at(address), 1, 8, &i);
          uint64_t back = 0;
          process->read_mem(at(address), 1, 8, &back);
          if (back != i) throw std::runtime_error("read back another value");
          done->fetch_add(1);
        }
      },
      kWatchLimit);
  killer.join();
  ASSERT_TRUE(run.returned) << run;
  ASSERT_TRUE(run.threwVorn) << run;
  EXPECT_EQ(run.file, "TaProcessKVX.cpp");
  std::ostringstream address;
  address << std::hex << lastAddress->load();
  EXPECT_TRUE(run.message == "Cannot write address " + address.str() + " with memory space logger" ||
              run.message == "Cannot read address " + address.str() + " with memory space logger")
      << run;

  // Every later access fails too, at once, and the process stays usable as an object.
  expectEveryAccessThrows(process, "after the kill");

  // The host goes on with another agent.
  SimProcess next({"--quiet"});
  auto other = processFor(next);
  const uint64_t value = 0xA11CE;
  ASSERT_NO_THROW(other->write_mem(at(0x20), 1, 8, &value));
  EXPECT_EQ(read64(*other, 0x20), value);
}

TEST_F(AgentFaultTest, AgentResettingAnIdleSessionFailsTheNextAccessWithoutSignal) {
  struct sigaction pipeAction {};
  ASSERT_EQ(::sigaction(SIGPIPE, nullptr, &pipeAction), 0);
  ASSERT_EQ(pipeAction.sa_handler, SIG_DFL) << "SIGPIPE must be able to end this program";

  ResettingAgent agent;
  auto process = test::processFor("127.0.0.1", agent.port());
  const uint64_t value = 0x7E5E7;
  ASSERT_NO_THROW(process->write_mem(at(0x50), 1, 8, &value));
  ASSERT_TRUE(agent.awaitReset());
  // Lets the reset arrive; were it still on its way, the write below would meet a half-closed
  // socket instead and the test would prove less, but never fail wrongly.
  std::this_thread::sleep_for(milliseconds(20));
  const CallOutcome write =
      watch([process, value] { process->write_mem(at(0x50), 1, 8, &value); }, kWatchLimit);
  ASSERT_TRUE(write.returned) << write;
  EXPECT_TRUE(write.threwVorn) << write;
  EXPECT_EQ(write.message, "Cannot write address 50 with memory space logger");
  expectEveryAccessThrows(process, "after the reset");
}

TEST_F(AgentFaultTest, SilentAgentFailsTheAccessWithinTheReplyTimeout) {
  ::setenv(kTimeoutVariable, kShortTimeoutMs, 1);
  // The handshake and two accesses are answered; nothing after.
  SimProcess sim({"--quiet", "--hang-after", "3"});
  auto process = processFor(sim);
  const uint64_t value = 0x5157;
  ASSERT_NO_THROW(process->write_mem(at(0x2000), 1, 8, &value));
  ASSERT_EQ(read64(*process, 0x2000), value);

  const CallOutcome hung = watch(
      [process] {
        uint64_t out = 0;
        process->read_mem(at(0x2000), 1, 8, &out);
      },
      kWatchLimit, [&sim] { sim.kill(); });
  ASSERT_TRUE(hung.returned) << hung;
  EXPECT_TRUE(hung.threwVorn) << hung;
  EXPECT_EQ(hung.message, "Cannot read address 2000 with memory space logger");
  std::cout << "a silent agent failed the access after " << hung.elapsed.count() << " ms (timeout "
            << kShortTimeoutMs << " ms)" << std::endl;

  // The session is closed and this endpoint is not reopened: every access fails at once.
  expectEveryAccessThrows(process, "after the timeout");
}

TEST_F(AgentFaultTest, AgentSilentFromTheHandshakeFailsTheAccessWithinTheReplyTimeout) {
  ::setenv(kTimeoutVariable, kShortTimeoutMs, 1);
  SimProcess sim({"--quiet", "--hang-after", "0"});
  auto process = processFor(sim);
  const CallOutcome hung = watch(
      [process] {
        const uint64_t value = 1;
        process->write_mem(at(0x30), 1, 8, &value);
      },
      kWatchLimit, [&sim] { sim.kill(); });
  ASSERT_TRUE(hung.returned) << hung;
  EXPECT_TRUE(hung.threwVorn) << hung;
  EXPECT_EQ(hung.message, "Cannot write address 30 with memory space logger");
  EXPECT_FALSE(TaProcessKVX::m_sharedConnection.isActive());
}

TEST_F(AgentFaultTest, DroppedSessionIsReopenedOnlyAfterASwitchThroughAnotherEndpoint) {
  // Each connection is closed by the agent after the handshake and two accesses.
  SimProcess dropping({"--quiet", "--drop-after", "3"});
  SimProcess other({"--quiet"});
  auto process = processFor(dropping);
  auto elsewhere = processFor(other);
  const uint64_t value = 0xD209;
  ASSERT_NO_THROW(process->write_mem(at(0x3000), 1, 8, &value));
  ASSERT_EQ(read64(*process, 0x3000), value);

  expectEveryAccessThrows(process, "connection dropped");
  // The agent is alive and would take a new session, but the same endpoint is not reopened,
  // neither by the old process nor by a new one for it.
  expectEveryAccessThrows(processFor(dropping), "a new process for the same endpoint");

  // An access through another endpoint switches the session away; coming back reopens it, and
  // the agent still holds what was written before the drop.
  EXPECT_EQ(read64(*elsewhere, 0x3000), 0u);
  EXPECT_EQ(read64(*process, 0x3000), value);
}

TEST_F(AgentFaultTest, RestartedAgentIsReachedOnlyAfterASwitchThroughAnotherEndpoint) {
  auto sim = std::make_unique<SimProcess>(std::vector<std::string>{"--quiet"});
  const uint16_t port = sim->port();
  SimProcess other({"--quiet"});
  auto process = processFor(*sim);
  auto elsewhere = processFor(other);
  const uint64_t value = 0x4E57;
  ASSERT_NO_THROW(process->write_mem(at(0x4000), 1, 8, &value));

  sim->kill();
  expectEveryAccessThrows(process, "agent gone");

  // The simulator listens with SO_REUSEADDR, so its port is free again at once; a few retries
  // cover a port taken meanwhile by someone else's connect.
  sim.reset();
  for (int attempt = 0; attempt < 20 && !sim; ++attempt) {
    try {
      sim = std::make_unique<SimProcess>(std::vector<std::string>{"--quiet", "--port", std::to_string(port)});
    } catch (const std::runtime_error&) {
      std::this_thread::sleep_for(milliseconds(100));
    }
  }
  if (!sim) GTEST_SKIP() << "port " << port << " could not be bound again within two seconds";

  // Back on the same port, but the failed session's endpoint is the open one: not reopened.
  expectEveryAccessThrows(process, "agent back, no switch yet");

  // A switch through another endpoint, then back: the new agent is reached, with fresh memory.
  EXPECT_EQ(read64(*elsewhere, 0x4000), 0u);
  EXPECT_EQ(read64(*process, 0x4000), 0u) << "a restarted agent starts with empty memory";
  ASSERT_NO_THROW(process->write_mem(at(0x4000), 1, 8, &value));
  EXPECT_EQ(read64(*process, 0x4000), value);
}

TEST_F(AgentFaultTest, AgentRefusingSessionsFailsEveryAccess) {
  SimProcess sim({"--quiet", "--refuse-sessions"});
  auto process = processFor(sim);
  ASSERT_TRUE(process) << "processes are made without asking the agent";
  expectEveryAccessThrows(process, "sessions refused");
  EXPECT_FALSE(TaProcessKVX::m_sharedConnection.isActive());
}

}  // namespace
}  // namespace vorn
