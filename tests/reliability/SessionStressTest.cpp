// Many host threads on many agents at once, through the whole stack: the manager, the plug-in, the
// real agent client library and four kvx-agent-sim processes. Every thread owns an address range
// and a register on one agent and checks each value it reads against what it wrote; afterwards the
// memory of every agent is read back in full through fresh processes, so an access that reached
// the wrong agent shows either as a wrong value or as a stray byte where none belongs.
//
// Each test runs for TA_KVX_STRESS_SECONDS seconds (default 2; fractions allowed), so sanitizer
// builds simply do fewer iterations. TA_KVX_STRESS_SEED fixes the random seed, which every test
// prints, to replay a run.

#include <algorithm>
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
#include "tests/reliability/HostWatch.h"
#include "tests/support/SimProcess.h"

namespace vorn {
namespace {

using kvx::test::SimProcess;
using Clock = std::chrono::steady_clock;
using test::at;

constexpr int kAgents = 4;
constexpr int kThreads = 8;
/// Bytes of target memory each thread owns. Ranges lie back to back from kRangeBase, which sits
/// half a simulator page below a page boundary, so some accesses straddle two pages.
constexpr uint64_t kRangeSize = 1024;
constexpr uint64_t kRangeBase = 0x100000 - 512;
/// Each agent holds a recognisable pattern here, for processes that come and go to check.
constexpr uint64_t kSentinelBase = 0x8000;
constexpr uint64_t kSentinelWords = 8;
constexpr uint64_t kMaxAccess = 8;
constexpr double kDefaultSeconds = 2.0;
/// How many disagreements a test lists before it stops collecting them.
constexpr size_t kMaxReported = 10;

int agentOf(int thread) { return thread % kAgents; }
uint64_t rangeStart(int thread) { return kRangeBase + static_cast<uint64_t>(thread) * kRangeSize; }
std::string registerOf(int thread) { return "r" + std::to_string(thread); }
uint64_t sentinelWord(int agent, uint64_t word) {
  return 0x5E000000A6E00000ull | uint64_t(agent) << 8 | word;
}

double stressSeconds() {
  const char* text = std::getenv("TA_KVX_STRESS_SECONDS");
  if (text == nullptr || *text == '\0') return kDefaultSeconds;
  const double seconds = std::strtod(text, nullptr);
  return seconds > 0 ? seconds : kDefaultSeconds;
}

uint64_t stressSeed() {
  const char* text = std::getenv("TA_KVX_STRESS_SEED");
  if (text != nullptr && *text != '\0') return std::strtoull(text, nullptr, 0);
  return std::random_device{}();
}

/// What went wrong across all threads: how often, and the first kMaxReported descriptions.
/// Threads stop as soon as anything has gone wrong.
class Findings {
 public:
  void add(const std::string& what) {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_count.fetch_add(1);
    if (m_texts.size() < kMaxReported) m_texts.push_back(what);
  }
  size_t count() const { return m_count.load(); }
  std::string text() const {
    std::lock_guard<std::mutex> guard(m_mutex);
    std::string all;
    for (const std::string& line : m_texts) all += "  " + line + "\n";
    return all;
  }

 private:
  std::atomic<size_t> m_count{0};
  mutable std::mutex m_mutex;
  std::vector<std::string> m_texts;  // guarded by m_mutex
};

std::string describe(const Exception& e) {
  return e.getFile() + ":" + std::to_string(e.getLine()) + ": " + e.getMessage();
}

/// One host thread's share of the target: its range and register on its agent, the values it
/// last wrote there, and what it did.
struct Worker {
  int thread = 0;
  boost::shared_ptr<TaProcess> process;
  std::vector<uint8_t> shadow = std::vector<uint8_t>(kRangeSize, 0);
  uint64_t registerValue = 0;

  uint64_t accesses = 0;
  /// Set when the thread stopped at a vorn::Exception; the exception's text.
  std::string exception;
};

/// Random accesses on `worker`'s range and register until `deadline` or until `findings` holds
/// anything. Every write is read back at once and every read compared with what the thread wrote
/// last; a disagreement or an exception is added to `findings` and ends the thread.
void stress(Worker& worker, uint64_t seed, Clock::time_point deadline, Findings& findings) {
  std::mt19937_64 random(seed);
  TaProcess& process = *worker.process;
  const std::string reg = registerOf(worker.thread);
  const int agent = agentOf(worker.thread);
  const auto fail = [&](uint64_t address, uint64_t size, const char* what) {
    std::ostringstream text;
    text << "thread " << worker.thread << " agent " << agent << ": " << what << " at 0x" << std::hex
         << address << std::dec << " size " << size << " after " << worker.accesses << " accesses";
    findings.add(text.str());
  };

  try {
    while (findings.count() == 0 && Clock::now() < deadline) {
      const uint64_t size = 1 + random() % kMaxAccess;
      const uint64_t offset = random() % (kRangeSize - size + 1);
      const uint64_t address = rangeStart(worker.thread) + offset;
      // The same byte count as count * unitSize in the ways a host writes it.
      const bool asUnits = size % 2 == 0 && random() % 2 == 0;
      const size_t count = asUnits ? size / 2 : size;
      const unsigned int unitSize = asUnits ? 2 : 1;
      const uint64_t choice = random() % 16;
      ++worker.accesses;

      if (choice < 8) {
        uint8_t data[kMaxAccess];
        for (uint64_t i = 0; i < size; ++i) data[i] = static_cast<uint8_t>(random());
        process.write_mem(at(address), count, unitSize, data);
        std::memcpy(&worker.shadow[offset], data, size);
        uint8_t back[kMaxAccess + 1];
        std::memset(back, 0xA5, sizeof back);
        process.read_mem(at(address), count, unitSize, back);
        ++worker.accesses;
        if (std::memcmp(back, data, size) != 0) return fail(address, size, "read back another value");
        if (back[size] != 0xA5) return fail(address, size, "read stored past its byte count");
      } else if (choice < 14) {
        uint8_t back[kMaxAccess];
        process.read_mem(at(address), count, unitSize, back);
        if (std::memcmp(back, &worker.shadow[offset], size) != 0) {
          return fail(address, size, "read a value this thread never left there");
        }
      } else if (choice == 14) {
        const uint64_t value = random();
        process.write_register(reg, 1, sizeof value, &value);
        worker.registerValue = value;
      } else {
        uint64_t value = 0;
        process.read_register(reg, 1, sizeof value, &value);
        if (value != worker.registerValue) return fail(0, 8, ("register " + reg + " changed").c_str());
      }
    }
  } catch (const Exception& e) {
    worker.exception = describe(e);
    findings.add("thread " + std::to_string(worker.thread) + ": " + worker.exception);
  } catch (const std::exception& e) {
    findings.add("thread " + std::to_string(worker.thread) + ": not a vorn::Exception: " + e.what());
  }
}

class SessionStressTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Whatever an earlier test in this program left open is switched away from.
    TaProcessKVX::m_sharedConnection = KVXConnection();
    for (int a = 0; a < kAgents; ++a) {
      m_agents.push_back(std::make_unique<SimProcess>(std::vector<std::string>{"--quiet"}));
    }
    m_seed = stressSeed();
    m_seconds = stressSeconds();
    std::cout << "seed " << m_seed << " (TA_KVX_STRESS_SEED), " << m_seconds
              << " s (TA_KVX_STRESS_SECONDS)\n";
  }

  boost::shared_ptr<ConfigBlock> configFor(int agent) const {
    return test::servedConfig(m_agents[agent]->address(), m_agents[agent]->port());
  }

  boost::shared_ptr<TaProcess> processFor(int agent) const {
    return TaProcessManager::getInstance().getTaProcess("core" + std::to_string(agent), configFor(agent));
  }

  /// One worker per thread; the threads of one agent share one process.
  std::vector<Worker> makeWorkers() const {
    std::vector<boost::shared_ptr<TaProcess>> processes;
    for (int a = 0; a < kAgents; ++a) processes.push_back(processFor(a));
    std::vector<Worker> workers(kThreads);
    for (int t = 0; t < kThreads; ++t) {
      workers[t].thread = t;
      workers[t].process = processes[agentOf(t)];
    }
    return workers;
  }

  /// Writes every agent's sentinel pattern, through one process per agent.
  void writeSentinels() const {
    for (int a = 0; a < kAgents; ++a) {
      auto process = processFor(a);
      for (uint64_t w = 0; w < kSentinelWords; ++w) {
        const uint64_t value = sentinelWord(a, w);
        process->write_mem(at(kSentinelBase + 8 * w), 1, 8, &value);
      }
    }
  }

  /// Reads back, through a fresh process and a fresh session per agent, every byte of every
  /// thread's range and every thread's register on each agent in `agents`: a thread's own agent
  /// must hold exactly what it wrote last, every other agent zero. Returns the bytes compared.
  uint64_t expectAgentsHoldExactlyTheirWrites(const std::vector<Worker>& workers,
                                              const std::vector<int>& agents) {
    // Visit the agents starting after the one whose session is open, so that every visit opens a
    // new session rather than reusing the one the workers left.
    std::vector<int> order = agents;
    for (size_t i = 0; i < order.size(); ++i) {
      if (KVXConnection(m_agents[order[i]]->address(), m_agents[order[i]]->port()) ==
          TaProcessKVX::m_sharedConnection) {
        std::rotate(order.begin(), order.begin() + static_cast<long>(i) + 1, order.end());
        break;
      }
    }
    Findings wrong;
    uint64_t compared = 0;
    for (int a : order) {
      auto process = processFor(a);
      for (const Worker& worker : workers) {
        const bool own = agentOf(worker.thread) == a;
        uint64_t wrongBytes = 0;
        uint64_t firstWrong = 0;
        for (uint64_t offset = 0; offset < kRangeSize; offset += 8) {
          uint8_t held[8];
          process->read_mem(at(rangeStart(worker.thread) + offset), 1, 8, held);
          compared += 8;
          for (uint64_t i = 0; i < 8; ++i) {
            if (held[i] != (own ? worker.shadow[offset + i] : 0) && wrongBytes++ == 0) {
              firstWrong = rangeStart(worker.thread) + offset + i;
            }
          }
        }
        if (wrongBytes != 0) {
          std::ostringstream text;
          text << "agent " << a << " holds " << wrongBytes << " wrong bytes in thread " << worker.thread
               << "'s range (" << (own ? "its own agent" : "another agent's thread") << "), the first at 0x"
               << std::hex << firstWrong;
          wrong.add(text.str());
        }
        uint64_t value = ~0ull;
        process->read_register(registerOf(worker.thread), 1, 8, &value);
        if (value != (own ? worker.registerValue : 0)) {
          wrong.add("agent " + std::to_string(a) + " holds a wrong " + registerOf(worker.thread));
        }
      }
    }
    std::cout << "read back " << compared << " bytes and " << workers.size() * order.size()
              << " registers on " << order.size() << " agents through fresh sessions: " << wrong.count()
              << " wrong" << std::endl;
    EXPECT_EQ(wrong.count(), 0u) << wrong.text();
    return compared;
  }

  static void report(const char* test, const std::vector<Worker>& workers, double seconds,
                     uint64_t extra = 0) {
    uint64_t accesses = extra;
    for (const Worker& worker : workers) accesses += worker.accesses;
    std::cout << test << ": " << workers.size() << " accessing threads, " << kAgents << " agents, "
              << accesses << " accesses in " << seconds << " s" << std::endl;
    ::testing::Test::RecordProperty("accesses", std::to_string(accesses));
  }

  std::vector<std::unique_ptr<SimProcess>> m_agents;
  uint64_t m_seed = 0;
  double m_seconds = kDefaultSeconds;
};

TEST_F(SessionStressTest, ThreadsOnFourAgentsReadBackExactlyWhatTheyWrote) {
  std::vector<Worker> workers = makeWorkers();
  Findings findings;
  const Clock::time_point start = Clock::now();
  const Clock::time_point deadline =
      start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(m_seconds));
  std::vector<std::thread> threads;
  for (Worker& worker : workers) {
    threads.emplace_back([&, seed = m_seed + static_cast<uint64_t>(worker.thread)] {
      stress(worker, seed, deadline, findings);
    });
  }
  for (std::thread& thread : threads) thread.join();
  report("stress", workers, std::chrono::duration<double>(Clock::now() - start).count());

  ASSERT_EQ(findings.count(), 0u) << findings.text();
  for (const Worker& worker : workers) EXPECT_GT(worker.accesses, 0u) << "thread " << worker.thread;
  expectAgentsHoldExactlyTheirWrites(workers, {0, 1, 2, 3});
}

TEST_F(SessionStressTest, ProcessesComeAndGoOnOtherThreadsWhileOthersAccess) {
  writeSentinels();
  // Half the threads access as above, the other half create processes through the manager, check
  // the agent's sentinel through them and hand them on, so that a process is often destroyed on
  // another thread than the one that made it.
  std::vector<Worker> workers = makeWorkers();
  workers.resize(kThreads / 2);
  Findings findings;
  std::atomic<uint64_t> created{0};
  std::mutex handOffMutex;
  std::vector<boost::shared_ptr<TaProcess>> handOff(kAgents);  // guarded by handOffMutex

  const Clock::time_point start = Clock::now();
  const Clock::time_point deadline =
      start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(m_seconds));
  std::vector<std::thread> threads;
  for (Worker& worker : workers) {
    threads.emplace_back([&, seed = m_seed + static_cast<uint64_t>(worker.thread)] {
      stress(worker, seed, deadline, findings);
    });
  }
  for (int c = 0; c < kThreads / 2; ++c) {
    threads.emplace_back([&, c, seed = m_seed + kThreads + static_cast<uint64_t>(c)] {
      std::mt19937_64 random(seed);
      TaProcessManager& manager = TaProcessManager::getInstance();
      try {
        while (findings.count() == 0 && Clock::now() < deadline) {
          const int agent = static_cast<int>(random() % kAgents);
          const auto config = configFor(agent);
          if (manager.registerClient(nullptr, config) != TA_METHOD_SERVED) {
            findings.add("admission refused a served block");
            return;
          }
          boost::shared_ptr<TaProcess> process = manager.getTaProcess("churn" + std::to_string(c), config);
          ++created;
          const uint64_t word = random() % kSentinelWords;
          uint64_t value = 0;
          process->read_mem(at(kSentinelBase + 8 * word), 1, 8, &value);
          if (value != sentinelWord(agent, word)) {
            std::ostringstream text;
            text << "a new process for agent " << agent << " read 0x" << std::hex << value;
            findings.add(text.str());
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
        findings.add("creating thread " + std::to_string(c) + ": " + describe(e));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  handOff.clear();
  report("come and go", workers, std::chrono::duration<double>(Clock::now() - start).count(), created.load());
  std::cout << "come and go: " << created.load() << " processes created and destroyed" << std::endl;

  ASSERT_EQ(findings.count(), 0u) << findings.text();
  EXPECT_GT(created.load(), 0u);
  EXPECT_EQ(ExtAddress::memorySpaceIds, std::vector<std::string>{"logger"});
  expectAgentsHoldExactlyTheirWrites(workers, {0, 1, 2, 3});
}

TEST_F(SessionStressTest, AgentKilledMidRunFailsOnlyTheProcessesOnIt) {
  constexpr int kDead = kAgents - 1;
  std::vector<Worker> workers = makeWorkers();
  Findings findings;    // on the agents that stay up
  Findings afterDeath;  // accesses through the dead agent's process that did not throw
  std::atomic<uint64_t> progress{0};
  const Clock::time_point start = Clock::now();
  const Clock::time_point deadline =
      start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(m_seconds));

  std::vector<std::thread> threads;
  for (Worker& worker : workers) {
    threads.emplace_back([&, seed = m_seed + static_cast<uint64_t>(worker.thread)] {
      if (agentOf(worker.thread) != kDead) {
        stress(worker, seed, deadline, findings);
        return;
      }
      Findings own;
      // Runs until the agent dies under it; then every further access must fail as well, at
      // once: none may be served by another agent, and none may hang.
      while (own.count() == 0 && Clock::now() < deadline) {
        stress(worker, seed + worker.accesses,
               std::min(deadline, Clock::now() + std::chrono::milliseconds(20)), own);
        progress.fetch_add(1);
      }
      if (worker.exception.empty()) {
        afterDeath.add("thread " + std::to_string(worker.thread) + " never saw its agent die: " + own.text());
        return;
      }
      static const std::regex message(
          R"(TaProcessKVX\.cpp:\d+: Cannot (read|write) (address [0-9a-f]+ with memory space logger|register r\d+))");
      if (!std::regex_match(worker.exception, message)) afterDeath.add("unexpected: " + worker.exception);
      for (int i = 0; i < 50; ++i) {
        uint64_t value = 0;
        try {
          worker.process->read_mem(at(rangeStart(worker.thread)), 1, 8, &value);
          afterDeath.add("a read through the dead agent's process succeeded");
        } catch (const Exception&) {
        }
        try {
          worker.process->write_mem(at(rangeStart(worker.thread)), 1, 8, &value);
          afterDeath.add("a write through the dead agent's process succeeded");
        } catch (const Exception&) {
        }
      }
    });
  }
  // Kill once the dead agent's threads are well under way.
  while (progress.load() < 10 && Clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  m_agents[kDead]->kill();
  for (std::thread& thread : threads) thread.join();
  report("agent killed", workers, std::chrono::duration<double>(Clock::now() - start).count());

  EXPECT_EQ(findings.count(), 0u) << "the agents that stayed up:\n" << findings.text();
  EXPECT_EQ(afterDeath.count(), 0u) << afterDeath.text();
  expectAgentsHoldExactlyTheirWrites(workers, {0, 1, 2});
}

}  // namespace
}  // namespace vorn
