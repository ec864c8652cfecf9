// Many host threads on sixteen agents at once, through the whole stack: the manager, the plug-in, the
// real agent client library and sixteen kvx-agent-sim processes. Each accessing thread owns a range
// of target memory on one agent (two threads share each agent's process) and reads back every
// value it writes, while other threads create processes through the manager, check that each
// reaches its own agent, and leave it to be destroyed on another thread. Afterwards every agent is
// read in full: an access that reached the wrong agent shows as a stray byte even if no thread
// read it back.
//
// The run lasts TA_KVX_STRESS_SECONDS seconds (default 2; fractions allowed), so sanitizer builds
// simply do fewer iterations. What varies from run to run is the threads' interleaving; the
// values and offsets each thread picks are the same in every run.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/HostSetup.h"
#include "tests/support/SimProcess.h"

namespace vorn {
namespace {

using Clock = std::chrono::steady_clock;
using kvx::test::at;

constexpr int kAgents = 16;
constexpr int kAccessors = 32;
constexpr int kChurners = 2;
/// Bytes of target memory each accessor owns. The ranges lie back to back from kRangeBase, 512
/// bytes below a simulator page boundary, so some accesses straddle two pages.
constexpr uint64_t kRangeSize = 256;
constexpr uint64_t kRangeBase = 0x100000 - 512;
/// Each agent holds its own number here, for the processes that come and go to check.
constexpr uint64_t kSentinel = 0x8000;

uint64_t rangeStart(int thread) { return kRangeBase + static_cast<uint64_t>(thread) * kRangeSize; }

TEST(SessionStressTest, ThreadsReadBackWhatTheyWroteWhileProcessesComeAndGo) {
  std::vector<std::unique_ptr<kvx::test::SimProcess>> agents;
  std::vector<boost::shared_ptr<TaProcess>> processes;
  for (uint64_t a = 0; a < kAgents; ++a) {
    agents.push_back(std::make_unique<kvx::test::SimProcess>(std::vector<std::string>{"--quiet"}));
    processes.push_back(kvx::test::processFor(*agents.back()));
    processes.back()->write_mem(at(kSentinel), 1, 8, &a);
  }
  const char* secondsText = std::getenv("TA_KVX_STRESS_SECONDS");
  const double seconds = secondsText != nullptr ? std::strtod(secondsText, nullptr) : 0;
  const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(seconds > 0 ? seconds : 2));

  std::mutex mutex;
  std::vector<std::string> failures;     // guarded by mutex
  boost::shared_ptr<TaProcess> handOff;  // guarded by mutex
  std::atomic<bool> failed{false};
  std::atomic<uint64_t> accesses{0};
  std::atomic<uint64_t> created{0};
  const auto fail = [&](const std::string& what) {
    std::lock_guard<std::mutex> guard(mutex);
    failures.push_back(what);
    failed = true;
  };
  // What each accessor last wrote; only its own thread touches it until all are joined.
  std::vector<std::vector<uint8_t>> shadows(kAccessors, std::vector<uint8_t>(kRangeSize, 0));

  std::vector<std::thread> threads;
  for (int t = 0; t < kAccessors + kChurners; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937_64 random(static_cast<uint64_t>(t));
      try {
        while (!failed && Clock::now() < end) {
          if (t < kAccessors) {
            TaProcess& process = *processes[t % kAgents];
            const unsigned size = 1 + random() % 8;
            const uint64_t offset = random() % (kRangeSize - size + 1);
            uint8_t* mine = &shadows[t][offset];
            for (unsigned i = 0; i < size; ++i) mine[i] = static_cast<uint8_t>(random());
            uint8_t back[8] = {};
            process.write_mem(at(rangeStart(t) + offset), 1, size, mine);
            process.read_mem(at(rangeStart(t) + offset), 1, size, back);
            accesses += 2;
            if (std::memcmp(back, mine, size) != 0) {
              fail("thread " + std::to_string(t) + " read back another value after " +
                   std::to_string(accesses) + " accesses");
            }
          } else {
            const uint64_t a = random() % kAgents;
            boost::shared_ptr<TaProcess> process = kvx::test::processFor(*agents[a]);
            if (kvx::test::read64(*process, kSentinel) != a) {
              fail("a new process for agent " + std::to_string(a) + " read another agent's memory");
            }
            {
              // The process another thread left here dies on this one.
              std::lock_guard<std::mutex> guard(mutex);
              std::swap(handOff, process);
            }
            process.reset();
            ++created;
          }
        }
      } catch (const std::exception& e) {
        fail("thread " + std::to_string(t) + ": " + e.what());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  handOff.reset();
  std::cout << accesses << " accesses from " << kAccessors << " threads while " << created
            << " processes came and went" << std::endl;
  ASSERT_TRUE(failures.empty()) << ::testing::PrintToString(failures);
  EXPECT_GT(created, 0u);
  EXPECT_EQ(ExtAddress::memorySpaceIds, std::vector<std::string>{"logger"});

  // Each range holds its thread's last values on the thread's agent, zeros on the others.
  const std::vector<uint8_t> zeros(kRangeSize, 0);
  for (int a = 0; a < kAgents; ++a) {
    auto process = kvx::test::processFor(*agents[a]);
    for (int t = 0; t < kAccessors; ++t) {
      const bool own = t % kAgents == a;
      std::vector<uint8_t> held(kRangeSize);
      for (uint64_t offset = 0; offset < kRangeSize; offset += 8) {
        process->read_mem(at(rangeStart(t) + offset), 1, 8, &held[offset]);
      }
      EXPECT_TRUE(held == (own ? shadows[t] : zeros)) << "agent " << a << ", range of thread " << t;
    }
  }
}

}  // namespace
}  // namespace vorn
