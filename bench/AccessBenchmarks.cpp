// The cost of one target access, layer by layer, each beside its floor:
//
//   BM_AgentCall/null      the agent library's io_read, answered at once: the floor of a call
//   BM_LockPair/null       the two mutexes every access takes, alone
//   BM_ReadMem/null, ...   the plug-in's access on the same null agent: the plug-in's own cost
//   BM_RawRoundTrip/...    one read frame and its reply on a bare TCP socket: the floor over
//                          loopback
//   BM_ReadMem/loopback    the plug-in through libtarget.agent.so to kvx-agent-sim
//   BM_Switch/loopback     accesses alternating between two agents: a session switch each
//
// The loopback cases count iterations by this program's CPU time (the library's default); their
// "Time" column is wall-clock time per access. With several threads it is the run's wall-clock
// time divided by the accesses of all threads: the inverse of their combined throughput.

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <string>

#include <arpa/inet.h>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/mutex.hpp>

#include "agent/TaProcessKVX.h"
#include "agent/TargetAgent.h"
#include "bench/AgentInterposer.h"
#include "bench/BenchEnvironment.h"
#include "platform/protocol/AgentProtocol.h"
#include "vorn/ExtAddress.h"

namespace kvx::bench {
namespace {

namespace protocol = kvx::protocol;

constexpr uint64_t kTargetAddress = 0x1000;
constexpr size_t kAccessBytes = 8;
/// An endpoint that only the null agent ever sees.
const char* const kNullAgentAddress = "null-agent";
constexpr int kNullAgentPort = 1;

vorn::ExtAddress targetAddress() {
  vorn::ExtAddress address;
  address.memorySpace = "logger";
  address.address = kTargetAddress;
  return address;
}

/// A process for (`address`, `port`) whose first access, and the session switch with it, is done.
std::unique_ptr<vorn::TaProcessKVX> warmProcess(const std::string& address, int port) {
  auto process = std::make_unique<vorn::TaProcessKVX>(address, port);
  uint64_t value = 0;
  process->read_mem(targetAddress(), 1, kAccessBytes, &value);
  return process;
}

// ---- Null agent: the plug-in's own cost ----

/// The two locks every access takes, nested as the plug-in nests them, and nothing else: the
/// part of the plug-in's cost that its locking design requires.
void BM_LockPairNull(benchmark::State& state) {
  boost::mutex session;
  boost::mutex process;
  for (auto _ : state) {
    boost::lock_guard<boost::mutex> outer(session);
    boost::lock_guard<boost::mutex> inner(process);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_LockPairNull)->Name("BM_LockPair/null");

void BM_AgentCallNull(benchmark::State& state) {
  setAgentMode(AgentMode::kNull);
  uint8_t bytes[kAccessBytes];
  for (auto _ : state) {
    benchmark::DoNotOptimize(io_read(kTargetAddress, bytes, kAccessBytes));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_AgentCallNull)->Name("BM_AgentCall/null");

void BM_ReadMemNull(benchmark::State& state) {
  setAgentMode(AgentMode::kNull);
  auto process = warmProcess(kNullAgentAddress, kNullAgentPort);
  const vorn::ExtAddress address = targetAddress();
  uint64_t value = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(process->read_mem(address, 1, kAccessBytes, &value));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_ReadMemNull)->Name("BM_ReadMem/null");

void BM_WriteMemNull(benchmark::State& state) {
  setAgentMode(AgentMode::kNull);
  auto process = warmProcess(kNullAgentAddress, kNullAgentPort);
  const vorn::ExtAddress address = targetAddress();
  const uint64_t value = 0x1122334455667788;
  for (auto _ : state) {
    benchmark::DoNotOptimize(process->write_mem(address, 1, kAccessBytes, &value));
  }
}
BENCHMARK(BM_WriteMemNull)->Name("BM_WriteMem/null");

void BM_ReadRegisterNull(benchmark::State& state) {
  setAgentMode(AgentMode::kNull);
  auto process = warmProcess(kNullAgentAddress, kNullAgentPort);
  const std::string name = "pc";
  uint64_t value = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(process->read_register(name, 1, kAccessBytes, &value));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_ReadRegisterNull)->Name("BM_ReadRegister/null");

// ---- Loopback: the real agent library and kvx-agent-sim ----

/// A bare client of the agent protocol: a blocking TCP socket with TCP_NODELAY, a handshake,
/// then one frame out and one reply in per call, with nothing else around them.
class RawClient {
 public:
  RawClient() = default;
  ~RawClient() {
    if (m_fd >= 0) ::close(m_fd);
  }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  /// Connects to `endpoint` and shakes hands. False, with the reason in `error`, on failure.
  bool open(const Endpoint& endpoint, std::string& error) {
    m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(static_cast<uint16_t>(endpoint.port));
    const int on = 1;
    if (m_fd < 0 || ::inet_pton(AF_INET, endpoint.host.c_str(), &peer.sin_addr) != 1 ||
        ::connect(m_fd, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0 ||
        ::setsockopt(m_fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) {
      error = std::string("cannot connect: ") + std::strerror(errno);
      return false;
    }
    protocol::Request hello;
    hello.opcode = protocol::Opcode::kHello;
    hello.value = protocol::kProtocolVersion;
    return exchange(hello, error);
  }

  /// Sends `request` (re-encoded once, here) and checks the agent's reply to it.
  bool exchange(const protocol::Request& request, std::string& error) {
    const size_t length = protocol::encodeRequest(request, m_request, sizeof m_request);
    const size_t replyLength = protocol::replyFrameSize(request.opcode);
    protocol::Reply reply;
    if (length == 0 || !roundTrip(m_request, length, replyLength) ||
        !protocol::decodeReply(m_reply, replyLength, reply) || reply.status != protocol::ReplyStatus::kOk) {
      error = "no valid reply to " + std::string(protocol::opcodeName(static_cast<uint8_t>(request.opcode)));
      return false;
    }
    return true;
  }

  /// One frame out, `replyLength` bytes in.
  bool roundTrip(const uint8_t* frame, size_t length, size_t replyLength) {
    if (::send(m_fd, frame, length, MSG_NOSIGNAL) != static_cast<ssize_t>(length)) return false;
    size_t received = 0;
    while (received < replyLength) {
      const ssize_t n = ::recv(m_fd, m_reply + received, replyLength - received, 0);
      if (n <= 0) return false;
      received += static_cast<size_t>(n);
    }
    return true;
  }

 private:
  int m_fd = -1;
  uint8_t m_request[protocol::kMaxFrameSize] = {};
  uint8_t m_reply[protocol::kMaxFrameSize] = {};
};

void BM_RawRoundTripLoopback(benchmark::State& state) {
  RawClient client;
  std::string error;
  if (!client.open(BenchEnvironment::current().firstAgent(), error)) {
    fail(state, error);
    return;
  }
  protocol::Request read;
  read.opcode = protocol::Opcode::kIoRead;
  read.id = 1;
  read.value = kTargetAddress;
  read.size = kAccessBytes;
  uint8_t frame[protocol::kMaxFrameSize];
  const size_t length = protocol::encodeRequest(read, frame, sizeof frame);
  const size_t replyLength = protocol::replyFrameSize(read.opcode);
  if (!client.exchange(read, error)) {
    fail(state, error);
    return;
  }
  for (auto _ : state) {
    if (!client.roundTrip(frame, length, replyLength)) {
      fail(state, "the simulator stopped answering");
      break;
    }
  }
}
BENCHMARK(BM_RawRoundTripLoopback)->Name("BM_RawRoundTrip/loopback");

/// Reads through one process per thread; with several threads, all name the same endpoint, so
/// they share the session and contend for the locks and the one connection.
void BM_ReadMemLoopback(benchmark::State& state) {
  setAgentMode(AgentMode::kForward);
  const Endpoint& agent = BenchEnvironment::current().firstAgent();
  std::unique_ptr<vorn::TaProcessKVX> process;
  try {
    process = warmProcess(agent.host, agent.port);
  } catch (const std::exception& e) {
    fail(state, e.what());
    return;
  }
  const vorn::ExtAddress address = targetAddress();
  uint64_t value = 0;
  for (auto _ : state) {
    try {
      process->read_mem(address, 1, kAccessBytes, &value);
    } catch (const std::exception& e) {
      fail(state, e.what());
      break;
    }
  }
}
BENCHMARK(BM_ReadMemLoopback)->Name("BM_ReadMem/loopback");
BENCHMARK(BM_ReadMemLoopback)->Name("BM_ReadMem/loopback")->Threads(2)->Threads(4)->Threads(8);

/// Each access goes to the other agent, so each one closes a session and opens another first.
void BM_SwitchLoopback(benchmark::State& state) {
  setAgentMode(AgentMode::kForward);
  const Endpoint& first = BenchEnvironment::current().firstAgent();
  const Endpoint& second = BenchEnvironment::current().secondAgent();
  std::unique_ptr<vorn::TaProcessKVX> processes[2];
  try {
    processes[0] = warmProcess(first.host, first.port);
    processes[1] = warmProcess(second.host, second.port);
  } catch (const std::exception& e) {
    fail(state, e.what());
    return;
  }
  const vorn::ExtAddress address = targetAddress();
  uint64_t value = 0;
  size_t next = 0;
  for (auto _ : state) {
    try {
      processes[next]->read_mem(address, 1, kAccessBytes, &value);
    } catch (const std::exception& e) {
      fail(state, e.what());
      break;
    }
    next ^= 1;
  }
}
BENCHMARK(BM_SwitchLoopback)->Name("BM_Switch/loopback");

}  // namespace
}  // namespace kvx::bench
