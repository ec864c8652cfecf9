// Many host threads, many processes, one agent session: every data access must arrive while the
// session is open on the endpoint of the process it was made through.

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "agent/TaProcessKVX.h"
#include "tests/unit/FakeAgent.h"

namespace vorn {
namespace {

using kvx::test::Fn;

constexpr int kEndpoints = 4;
constexpr int kThreads = 8;
constexpr int kIterations = 1000;

std::string endpointAddress(int endpoint) { return "10.0.0." + std::to_string(endpoint + 1); }
int endpointPort(int endpoint) { return 6000 + endpoint; }

/// Each access carries the endpoint it is meant for in its address (or register name), so the
/// recorded session can be checked against it afterwards.
uint64_t addressFor(int endpoint, int thread, int iteration) {
  return (uint64_t(endpoint) << 48) | (uint64_t(thread) << 32) | uint64_t(iteration);
}

int endpointOf(const kvx::test::Call& call) {
  if (call.fn == Fn::RegWrite || call.fn == Fn::RegRead) {
    return call.text[1] - '0';
  }
  return static_cast<int>(call.address >> 48);
}

void expectEveryAccessReachedItsEndpoint() {
  size_t accesses = 0;
  for (const kvx::test::Call& call : kvx::test::FakeAgent::instance().calls()) {
    if (call.fn != Fn::IoWrite && call.fn != Fn::IoRead && call.fn != Fn::RegWrite &&
        call.fn != Fn::RegRead) {
      continue;
    }
    ++accesses;
    const int endpoint = endpointOf(call);
    ASSERT_TRUE(call.session.open) << "access for endpoint " << endpoint << " without a session";
    ASSERT_EQ(call.session.address, endpointAddress(endpoint));
    ASSERT_EQ(call.session.port, endpointPort(endpoint));
  }
  EXPECT_GT(accesses, 0u);
}

class ConcurrencyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TaProcessKVX::m_sharedConnection = KVXConnection();
    kvx::test::FakeAgent::instance().reset();
  }

  /// Runs `body` on a new thread; an exception from it is counted, not fatal.
  std::thread spawn(std::function<void()> body) {
    return std::thread([this, body] {
      try {
        body();
      } catch (const std::exception&) {
        ++failures;
      }
    });
  }

  std::atomic<int> failures{0};
};

TEST_F(ConcurrencyTest, AccessesFromManyThreadsReachTheirOwnEndpoints) {
  std::vector<std::unique_ptr<TaProcessKVX>> processes;
  for (int e = 0; e < kEndpoints; ++e) {
    processes.push_back(std::make_unique<TaProcessKVX>(endpointAddress(e), endpointPort(e)));
  }
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.push_back(spawn([&processes, t] {
      const int endpoint = t % kEndpoints;
      TaProcessKVX& process = *processes[endpoint];
      const std::string reg = "r" + std::to_string(endpoint);
      uint64_t value = 0;
      for (int i = 0; i < kIterations; ++i) {
        ExtAddress address;
        address.address = addressFor(endpoint, t, i);
        process.write_mem(address, 1, 8, &value);
        process.read_mem(address, 1, 8, &value);
        if (i % 8 == 0) {
          process.write_register(reg, 1, 8, &value);
          process.read_register(reg, 1, 8, &value);
        }
      }
    }));
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(failures.load(), 0) << "accesses refused by the agent";
  expectEveryAccessReachedItsEndpoint();
}

}  // namespace
}  // namespace vorn
