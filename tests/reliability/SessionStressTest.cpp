// Many host threads on many agents at once, through the whole stack: the manager, the plug-in, the
// real agent client library and four kvx-agent-sim processes. Every thread owns an address range
// and a register on one agent and checks each value it reads against what it wrote; afterwards the
// memory of every agent is read back in full through fresh processes, so an access that reached
// the wrong agent shows either as a wrong value or as a stray byte where none belongs.
//
// Each test runs for TA_KVX_STRESS_SECONDS seconds (default 2; fractions allowed), so sanitizer
// builds simply do fewer iterations. TA_KVX_STRESS_SEED fixes the random seed, which every test
// prints, to replay a run.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <mutex>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "agent/TaProcessKVX.h"
#include "manager/TaProcessManager.h"
#include "tests/support/HostSetup.h"
#include "tests/support/SimProcess.h"
#include "vorn/Exception.h"

namespace vorn {
namespace {

using kvx::test::SimProcess;
using Clock = std::chrono::steady_clock;
using kvx::test::at;

constexpr int kAgents = 4;
constexpr int kThreads = 8;
/// Bytes of target memory each thread owns. Ranges lie back to back from kRangeBase, which sits
/// 512 bytes below a simulator page boundary, so some accesses straddle two pages.
constexpr uint64_t kRangeSize = 1024;
constexpr uint64_t kRangeBase = 0x100000 - 512;
/// Each agent holds a word of its own here, for the processes that come and go to check.
constexpr uint64_t kSentinel = 0x8000;

int agentOf(int thread) { return thread % kAgents; }
uint64_t rangeStart(int thread) { return kRangeBase + static_cast<uint64_t>(thread) * kRangeSize; }
std::string registerOf(int thread) { return "r" + std::to_string(thread); }
uint64_t sentinelOf(int agent) { return 0x5E000000A6E00000ull | static_cast<uint64_t>(agent); }

/// What went wrong across threads: how often, and the first ten descriptions. Threads stop as
/// soon as anything has gone wrong.
struct Findings {
  void add(const std::string& what) {
    std::lock_guard<std::mutex> guard(mutex);
    if (++count <= 10) texts.push_back(what);
    any = true;
  }
  std::atomic<bool> any{false};
  std::mutex mutex;
  // Guarded by mutex; read without it once the threads are joined.
  size_t count = 0;
  std::vector<std::string> texts;
};

/// One host thread's share of the target: its range and register on its agent, the values it
/// last wrote there, and what it did.
struct Worker {
  int thread = 0;
  boost::shared_ptr<TaProcess> process;
  std::vector<uint8_t> shadow = std::vector<uint8_t>(kRangeSize, 0);
  uint64_t registerValue = 0;
  uint64_t accesses = 0;
  /// "file:line: message" of the vorn::Exception that stopped the thread, if one did.
  std::string exception;
};

/// Random accesses on `worker`'s range and register until `deadline` or until `findings` holds
/// anything. Every write is read back at once and every read compared with what the thread wrote
/// last; a disagreement or an exception is added to `findings` and ends the thread.
void stress(Worker& worker, uint64_t seed, Clock::time_point deadline, Findings& findings) {
  std::mt19937_64 random(seed);
  TaProcess& process = *worker.process;
  const std::string reg = registerOf(worker.thread);
  const auto fail = [&](uint64_t address, uint64_t size, const std::string& what) {
    std::ostringstream text;
    text << "thread " << worker.thread << ": " << what << " at 0x" << std::hex << address << std::dec
         << " size " << size << " after " << worker.accesses << " accesses";
    findings.add(text.str());
  };
  try {
    while (!findings.any && Clock::now() < deadline) {
      const uint64_t size = 1 + random() % 8;
      const uint64_t offset = random() % (kRangeSize - size + 1);
      const uint64_t address = rangeStart(worker.thread) + offset;
      // The same byte count as count * unitSize in both shapes a host uses.
      const unsigned int unitSize = size % 2 == 0 && random() % 2 == 0 ? 2 : 1;
      const size_t count = size / unitSize;
      const uint64_t choice = random() % 16;
      if (choice < 14) {
        // A write of random bytes, read back at once; or a read anywhere in the range.
        const bool write = choice < 8;
        if (write) {
          for (uint64_t i = 0; i < size; ++i) worker.shadow[offset + i] = static_cast<uint8_t>(random());
          process.write_mem(at(address), count, unitSize, &worker.shadow[offset]);
        }
        uint8_t back[9];
        std::memset(back, 0xA5, sizeof back);
        process.read_mem(at(address), count, unitSize, back);
        worker.accesses += write ? 2 : 1;
        if (std::memcmp(back, &worker.shadow[offset], size) != 0) {
          return fail(address, size,
                      write ? "read back another value" : "read a value this thread never left there");
        }
        if (back[size] != 0xA5) return fail(address, size, "read stored past its byte count");
      } else if (choice == 14) {
        worker.registerValue = random();
        process.write_register(reg, 1, 8, &worker.registerValue);
        ++worker.accesses;
      } else {
        uint64_t value = 0;
        process.read_register(reg, 1, 8, &value);
        ++worker.accesses;
        if (value != worker.registerValue) return fail(0, 8, "register " + reg + " changed");
      }
    }
  } catch (const Exception& e) {
    worker.exception = e.getFile() + ":" + std::to_string(e.getLine()) + ": " + e.getMessage();
    findings.add("thread " + std::to_string(worker.thread) + ": " + worker.exception);
  } catch (const std::exception& e) {
    findings.add("thread " + std::to_string(worker.thread) + ": not a vorn::Exception: " + e.what());
  }
}

void joinAll(std::vector<std::thread>& threads) {
  for (std::thread& thread : threads) thread.join();
}

class SessionStressTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Whatever an earlier test in this program left open is switched away from.
    TaProcessKVX::m_sharedConnection = KVXConnection();
    for (auto& agent : m_agents) agent = std::make_unique<SimProcess>(std::vector<std::string>{"--quiet"});
    const char* seed = std::getenv("TA_KVX_STRESS_SEED");
    const char* seconds = std::getenv("TA_KVX_STRESS_SECONDS");
    m_seed = seed != nullptr && *seed != '\0' ? std::strtoull(seed, nullptr, 0) : std::random_device{}();
    const double parsed = seconds != nullptr ? std::strtod(seconds, nullptr) : 0;
    const std::chrono::duration<double> run(parsed > 0 ? parsed : 2.0);
    std::cout << "seed " << m_seed << " (TA_KVX_STRESS_SEED), " << run.count()
              << " s (TA_KVX_STRESS_SECONDS)\n";
    m_start = Clock::now();
    m_deadline = m_start + std::chrono::duration_cast<Clock::duration>(run);
  }

  boost::shared_ptr<TaProcess> processFor(int agent) const { return kvx::test::processFor(*m_agents[agent]); }

  /// `count` workers; the threads of one agent share one process.
  std::vector<Worker> makeWorkers(int count) const {
    std::vector<boost::shared_ptr<TaProcess>> processes;
    for (int a = 0; a < kAgents; ++a) processes.push_back(processFor(a));
    std::vector<Worker> workers(count);
    for (int t = 0; t < count; ++t) {
      workers[t].thread = t;
      workers[t].process = processes[agentOf(t)];
    }
    return workers;
  }

  /// Starts stress() on a thread per worker.
  std::vector<std::thread> start(std::vector<Worker>& workers, Findings& findings) const {
    std::vector<std::thread> threads;
    for (Worker& worker : workers) {
      threads.emplace_back(
          [&worker, &findings, this] { stress(worker, m_seed + worker.thread, m_deadline, findings); });
    }
    return threads;
  }

  /// Reads back, through a fresh process and a fresh session per agent, every byte of every
  /// worker's range and every worker's register on each agent in `agents`: a worker's own agent
  /// must hold exactly what it wrote last, every other agent zero. Counts the ranges and
  /// registers that are wrong.
  void expectAgentsHoldExactlyTheirWrites(const std::vector<Worker>& workers,
                                          const std::vector<int>& agents) const {
    // Forgets the session the workers left, so that every visit below opens a new one.
    TaProcessKVX::m_sharedConnection = KVXConnection();
    Findings wrong;
    const std::vector<uint8_t> zeros(kRangeSize, 0);
    for (int a : agents) {
      auto process = processFor(a);
      for (const Worker& worker : workers) {
        const bool own = agentOf(worker.thread) == a;
        std::vector<uint8_t> held(kRangeSize);
        for (uint64_t offset = 0; offset < kRangeSize; offset += 8) {
          process->read_mem(at(rangeStart(worker.thread) + offset), 1, 8, &held[offset]);
        }
        if (held != (own ? worker.shadow : zeros)) {
          wrong.add("agent " + std::to_string(a) + " holds wrong bytes in thread " +
                    std::to_string(worker.thread) + "'s range" +
                    (own ? "" : ", which belongs to another agent"));
        }
        uint64_t value = ~0ull;
        process->read_register(registerOf(worker.thread), 1, 8, &value);
        if (value != (own ? worker.registerValue : 0)) {
          wrong.add("agent " + std::to_string(a) + " holds a wrong " + registerOf(worker.thread));
        }
      }
    }
    std::cout << "read back " << kRangeSize * workers.size() * agents.size() << " bytes and "
              << workers.size() * agents.size() << " registers on " << agents.size()
              << " agents through fresh sessions: " << wrong.count << " wrong" << std::endl;
    EXPECT_EQ(wrong.count, 0u) << ::testing::PrintToString(wrong.texts);
  }

  /// Prints how many accesses the workers, and `others`, made.
  static void report(const char* test, const std::vector<Worker>& workers, uint64_t others = 0) {
    for (const Worker& worker : workers) others += worker.accesses;
    std::cout << test << ": " << others << " accesses from " << workers.size() << " accessing threads"
              << std::endl;
  }

  std::unique_ptr<SimProcess> m_agents[kAgents];
  uint64_t m_seed = 0;
  Clock::time_point m_start;
  Clock::time_point m_deadline;
};

TEST_F(SessionStressTest, ThreadsOnFourAgentsReadBackExactlyWhatTheyWrote) {
  std::vector<Worker> workers = makeWorkers(kThreads);
  Findings findings;
  std::vector<std::thread> threads = start(workers, findings);
  joinAll(threads);
  report("stress", workers);

  ASSERT_FALSE(findings.any) << ::testing::PrintToString(findings.texts);
  for (const Worker& worker : workers) EXPECT_GT(worker.accesses, 0u) << "thread " << worker.thread;
  expectAgentsHoldExactlyTheirWrites(workers, {0, 1, 2, 3});
}

TEST_F(SessionStressTest, ProcessesComeAndGoOnOtherThreadsWhileOthersAccess) {
  for (int a = 0; a < kAgents; ++a) {
    const uint64_t sentinel = sentinelOf(a);
    processFor(a)->write_mem(at(kSentinel), 1, 8, &sentinel);
  }
  // Half the threads access as above, the other half create processes through the manager, check
  // the agent's sentinel through them and hand them on, so that a process is often destroyed on
  // another thread than the one that made it.
  std::vector<Worker> workers = makeWorkers(kThreads / 2);
  Findings findings;
  std::atomic<uint64_t> created{0};
  std::mutex handOffMutex;
  std::vector<boost::shared_ptr<TaProcess>> handOff(kAgents);  // guarded by handOffMutex
  std::vector<std::thread> threads = start(workers, findings);
  for (int c = 0; c < kThreads / 2; ++c) {
    threads.emplace_back([&, c] {
      std::mt19937_64 random(m_seed + kThreads + static_cast<uint64_t>(c));
      TaProcessManager& manager = TaProcessManager::getInstance();
      try {
        while (!findings.any && Clock::now() < m_deadline) {
          const int agent = static_cast<int>(random() % kAgents);
          const auto config = kvx::test::servedConfig(m_agents[agent]->address(), m_agents[agent]->port());
          if (manager.registerClient(nullptr, config) != TA_METHOD_SERVED) {
            findings.add("admission refused a served block");
            return;
          }
          boost::shared_ptr<TaProcess> process = manager.getTaProcess("churn" + std::to_string(c), config);
          ++created;
          if (kvx::test::read64(*process, kSentinel) != sentinelOf(agent)) {
            findings.add("a new process for agent " + std::to_string(agent) + " read another agent's memory");
            return;
          }
          {
            // The process left in the slot, made by whichever thread, dies here.
            std::lock_guard<std::mutex> guard(handOffMutex);
            std::swap(handOff[static_cast<size_t>(agent)], process);
          }
          process.reset();
          manager.unregisterClient("churn", config);
        }
      } catch (const Exception& e) {
        findings.add("creating thread " + std::to_string(c) + ": " + e.getMessage());
      }
    });
  }
  joinAll(threads);
  handOff.clear();
  report("come and go", workers, created.load());
  std::cout << "come and go: " << created.load() << " processes created and destroyed" << std::endl;

  ASSERT_FALSE(findings.any) << ::testing::PrintToString(findings.texts);
  EXPECT_GT(created.load(), 0u);
  EXPECT_EQ(ExtAddress::memorySpaceIds, std::vector<std::string>{"logger"});
  expectAgentsHoldExactlyTheirWrites(workers, {0, 1, 2, 3});
}

TEST_F(SessionStressTest, AgentKilledMidRunFailsOnlyTheProcessesOnIt) {
  constexpr int kDead = kAgents - 1;
  const std::regex pluginMessage(
      R"(TaProcessKVX\.cpp:\d+: Cannot (read|write) (address [0-9a-f]+ with memory space logger|register r\d+))");
  std::vector<Worker> workers = makeWorkers(kThreads);
  Findings findings;    // on the agents that stay up
  Findings afterDeath;  // what the dead agent's threads saw that they must not have
  std::vector<std::thread> threads;
  for (Worker& worker : workers) {
    threads.emplace_back([&worker, &findings, &afterDeath, &pluginMessage, this] {
      if (agentOf(worker.thread) != kDead)
        return stress(worker, m_seed + worker.thread, m_deadline, findings);
      // Runs until the agent dies under it; then every further access must fail as well, at
      // once: none may be served by another agent, and none may hang.
      Findings own;
      stress(worker, m_seed + worker.thread, m_deadline, own);
      if (!std::regex_match(worker.exception, pluginMessage)) {
        afterDeath.add("thread " + std::to_string(worker.thread) +
                       " did not stop at the plug-in's exception: " + ::testing::PrintToString(own.texts));
        return;
      }
      for (int i = 0; i < 100; ++i) {
        uint64_t value = 0;
        try {
          i % 2 == 0 ? worker.process->read_mem(at(rangeStart(worker.thread)), 1, 8, &value)
                     : worker.process->write_mem(at(rangeStart(worker.thread)), 1, 8, &value);
          afterDeath.add("an access through the dead agent's process succeeded");
        } catch (const Exception&) {
        }
      }
    });
  }
  // Kills once every thread is well under way.
  std::this_thread::sleep_until(m_start + (m_deadline - m_start) / 4);
  m_agents[kDead]->kill();
  joinAll(threads);
  report("agent killed", workers);

  EXPECT_FALSE(findings.any) << "the agents that stayed up: " << ::testing::PrintToString(findings.texts);
  EXPECT_FALSE(afterDeath.any) << ::testing::PrintToString(afterDeath.texts);
  expectAgentsHoldExactlyTheirWrites(workers, {0, 1, 2});
}

}  // namespace
}  // namespace vorn
