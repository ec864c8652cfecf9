// The cost of one target access, layer by layer, each beside its floor:
//
//   BM_AgentCall/null      the agent library's io_read, answered at once: the floor of a call
//   BM_LockPair/null       the two mutexes every access takes, alone
//   BM_ReadMem/null, ...   the plug-in's access on the same null agent: the plug-in's own cost
//   BM_RawRoundTrip/...    one read frame and its reply on a bare TCP socket: the floor over
//                          loopback
//   BM_ReadMem/loopback    the plug-in through libtarget.agent.so to kvx-agent-sim
//   BM_Switch/loopback     accesses alternating between two agents: a session switch each
//   BM_Switch/loopback/agents:N   the same round robin over N agents
//
// The loopback cases count iterations by this program's CPU time (the library's default); their
// "Time" column is wall-clock time per access. With several threads it is the run's wall-clock
// time divided by the accesses of all threads: the inverse of their combined throughput.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/mutex.hpp>

#include "agent/TaProcessKVX.h"
#include "agent/TargetAgent.h"
#include "bench/AgentInterposer.h"
#include "bench/BenchEnvironment.h"
#include "platform/protocol/AgentProtocol.h"
#include "tests/support/WireConnection.h"
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

/// One frame out and one reply in on a bare blocking TCP socket: the floor of an access.
void BM_RawRoundTripLoopback(benchmark::State& state) {
  std::unique_ptr<kvx::test::WireConnection> wire;
  try {
    wire = std::make_unique<kvx::test::WireConnection>(BenchEnvironment::current().firstAgent());
  } catch (const std::exception& e) {
    fail(state, e.what());
    return;
  }
  protocol::Request hello;
  hello.value = protocol::kProtocolVersion;
  protocol::Request read;
  read.opcode = protocol::Opcode::kIoRead;
  read.value = kTargetAddress;
  read.size = kAccessBytes;
  protocol::Reply reply;
  if (!wire->transact(hello, reply) || !wire->transact(read, reply) ||
      reply.status != protocol::ReplyStatus::kOk) {
    fail(state, "no valid reply from the simulator");
    return;
  }
  const kvx::test::Frame frame = kvx::test::encoded(read);
  uint8_t in[protocol::kMaxFrameSize];
  const size_t replyLength = protocol::replyFrameSize(read.opcode);
  for (auto _ : state) {
    if (!wire->send(frame) || !wire->receive(in, replyLength)) {
      fail(state, "the simulator stopped answering");
      break;
    }
  }
}
BENCHMARK(BM_RawRoundTripLoopback)->Name("BM_RawRoundTrip/loopback");

/// The timed loop of the loopback reads: one 8-byte read_mem an iteration.
void readWhileTheStateRuns(benchmark::State& state, vorn::TaProcessKVX& process) {
  const vorn::ExtAddress address = targetAddress();
  uint64_t value = 0;
  for (auto _ : state) {
    try {
      process.read_mem(address, 1, kAccessBytes, &value);
    } catch (const std::exception& e) {
      fail(state, e.what());
      break;
    }
  }
}

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
  readWhileTheStateRuns(state, *process);
}
BENCHMARK(BM_ReadMemLoopback)->Name("BM_ReadMem/loopback");

/// Reads with this thread on CPU 0 and the simulator on `cpu`: the same CPU, or the other one,
/// where every exchange would wake a sleeping process on another CPU. The simulator's CPU time
/// per access is reported beside the program's.
void BM_ReadMemPinned(benchmark::State& state, int cpu) {
  setAgentMode(AgentMode::kForward);
  std::unique_ptr<vorn::TaProcessKVX> process;
  pid_t sim = -1;
  try {
    const auto [agent, pid] = BenchEnvironment::current().agentOnCpu(cpu);
    sim = pid;
    process = warmProcess(agent.host, agent.port);
  } catch (const std::exception& e) {
    fail(state, e.what());
    return;
  }
  const PinnedThread pinned(0);
  const double simCpuBefore = processCpuMicroseconds(sim);
  readWhileTheStateRuns(state, *process);
  state.counters["sim_cpu_us"] =
      benchmark::Counter(processCpuMicroseconds(sim) - simCpuBefore, benchmark::Counter::kAvgIterations);
}
BENCHMARK_CAPTURE(BM_ReadMemPinned, same_cpu, 0)->Name("BM_ReadMem/loopback_same_cpu");
BENCHMARK_CAPTURE(BM_ReadMemPinned, cross_cpu, 1)->Name("BM_ReadMem/loopback_cross_cpu");
BENCHMARK(BM_ReadMemLoopback)->Name("BM_ReadMem/loopback")->Threads(2)->Threads(4)->Threads(8);

/// Reads round robin through one warm process for each of `agents`: every access closes a session
/// and opens another first, and each agent sees a request once every `agents.size()` accesses.
void switchWhileTheStateRuns(benchmark::State& state, const std::vector<Endpoint>& agents) {
  setAgentMode(AgentMode::kForward);
  std::vector<std::unique_ptr<vorn::TaProcessKVX>> processes;
  try {
    for (const Endpoint& agent : agents) processes.push_back(warmProcess(agent.host, agent.port));
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
    if (++next == processes.size()) next = 0;
  }
}

/// Alternates between the two simulators every benchmark shares.
void BM_SwitchLoopback(benchmark::State& state) {
  switchWhileTheStateRuns(
      state, {BenchEnvironment::current().firstAgent(), BenchEnvironment::current().secondAgent()});
}
BENCHMARK(BM_SwitchLoopback)->Name("BM_Switch/loopback");

/// N agents, each a kvx-agent-sim of its own, as a host with one process per core of a manycore
/// target.
void BM_SwitchManyAgents(benchmark::State& state) {
  std::vector<Endpoint> agents;
  try {
    agents = BenchEnvironment::current().agents(static_cast<size_t>(state.range(0)));
  } catch (const std::exception& e) {
    fail(state, e.what());
    return;
  }
  switchWhileTheStateRuns(state, agents);
}
BENCHMARK(BM_SwitchManyAgents)
    ->Name("BM_Switch/loopback")
    ->ArgName("agents")
    ->Arg(2)
    ->Arg(8)
    ->Arg(32)
    ->Arg(128);

}  // namespace
}  // namespace kvx::bench
