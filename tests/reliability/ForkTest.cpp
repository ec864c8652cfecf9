// A host that forks, through the whole stack: the plug-in, the real agent client library and
// kvx-agent-sim processes. A child shares its parent's memory image and descriptors but none of
// its threads, so it must neither use nor close the parent's agent connections, nor find a lock
// held by a thread it does not have. Parent and child each read back what they wrote; a child
// reports through its exit status, and the watchdog of ForkedChild kills one that hangs.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

#include <gtest/gtest.h>

#include "tests/support/ChildProcess.h"
#include "tests/support/HostSetup.h"
#include "tests/support/SimProcess.h"
#include "vorn/Exception.h"

namespace vorn {
namespace {

using kvx::test::at;
using kvx::test::ForkedChild;
using kvx::test::processFor;
using kvx::test::read64;
using kvx::test::SimProcess;

/// Writes `rounds` values into 64 words from `base` on, reading each back at once; the number of
/// values that did not come back or whose access threw.
int writeAndReadBack(TaProcess& process, uint64_t base, uint64_t seed, int rounds) {
  int wrong = 0;
  for (int i = 0; i < rounds; ++i) {
    const uint64_t address = base + 8 * static_cast<uint64_t>(i % 64);
    const uint64_t value = seed + static_cast<uint64_t>(i);
    try {
      process.write_mem(at(address), 1, 8, &value);
      wrong += read64(process, address) != value;
    } catch (const Exception&) {
      ++wrong;
    }
  }
  return wrong;
}

/// The words that writeAndReadBack(base, seed, rounds) left behind are there to read.
bool holdsWhatWasWritten(TaProcess& process, uint64_t base, uint64_t seed, int rounds) {
  for (int i = std::max(0, rounds - 64); i < rounds; ++i) {
    if (read64(process, base + 8 * static_cast<uint64_t>(i % 64)) != seed + static_cast<uint64_t>(i))
      return false;
  }
  return true;
}

class ForkTest : public ::testing::Test {
 protected:
  static constexpr uint64_t kParentBase = 0x1000;
  static constexpr uint64_t kChildBase = 0x2000;
  static constexpr int kRounds = 300;

  SimProcess m_first{{"--quiet"}};
  SimProcess m_second{{"--quiet"}};
};

// The child never calls the plug-in. Its exit ran the agent library's destructor, which once
// said Goodbye on every connection it had inherited, the parked one included.
TEST_F(ForkTest, ChildThatOnlyExitsLeavesTheParentsConnectionsAlone) {
  auto first = processFor(m_first);
  auto second = processFor(m_second);
  ASSERT_EQ(writeAndReadBack(*first, kParentBase, 100, 64), 0);
  ASSERT_EQ(writeAndReadBack(*second, kParentBase, 200, 64), 0);  // the first one's is parked now

  EXPECT_EQ(ForkedChild([] { return 0; }).join().exitCode, 0);
  EXPECT_TRUE(holdsWhatWasWritten(*second, kParentBase, 200, 64)) << "the session's connection";
  EXPECT_TRUE(holdsWhatWasWritten(*first, kParentBase, 100, 64)) << "the parked connection";
}

// Parent and child reach their agents at the same time, each on connections of its own: on a
// shared socket they would take each other's replies.
TEST_F(ForkTest, ChildUsesAgentsOnConnectionsOfItsOwnWhileTheParentGoesOn) {
  auto first = processFor(m_first);
  auto second = processFor(m_second);
  ASSERT_EQ(writeAndReadBack(*first, kParentBase, 1, 1), 0);
  for (SimProcess* childsAgent : {&m_first, &m_second}) {
    SCOPED_TRACE(childsAgent == &m_first ? "child on the parent's endpoint" : "child on another endpoint");
    const uint64_t seed = childsAgent == &m_first ? 0x1000 : 0x2000;
    TaProcess& childsProcess = childsAgent == &m_first ? *first : *second;
    ForkedChild child(
        [&] { return writeAndReadBack(childsProcess, kChildBase, seed, kRounds) == 0 ? 0 : 1; });
    EXPECT_EQ(writeAndReadBack(*first, kParentBase, 0x3000, kRounds), 0);
    EXPECT_EQ(child.join().exitCode, 0);
    EXPECT_TRUE(holdsWhatWasWritten(childsProcess, kChildBase, seed, kRounds))
        << "the child reached its agent";
  }
}

// A thread of the parent is inside an access, switching between two agents that answer slowly,
// whenever the parent forks: the child finds the session lock free, and every process usable.
TEST_F(ForkTest, ChildForkedWhileAnotherThreadIsInsideAnAccessFindsNothingHeld) {
  SimProcess slowFirst({"--quiet", "--latency-us", "2000"});
  SimProcess slowSecond({"--quiet", "--latency-us", "2000"});
  auto first = processFor(slowFirst);
  auto second = processFor(slowSecond);
  std::atomic<bool> done{false};
  std::atomic<int> accesses{0};
  std::atomic<int> wrong{0};
  std::thread busy([&] {
    for (uint64_t i = 0; !done; ++i) {
      wrong += writeAndReadBack(i % 2 == 0 ? *first : *second, kParentBase, i << 8, 1);
      ++accesses;
    }
  });
  for (int fork = 0; fork < 5; ++fork) {
    const int before = accesses;
    while (accesses == before) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ForkedChild child([&] {
      return writeAndReadBack(*first, kChildBase, 0x5000, 8) +
             writeAndReadBack(*second, kChildBase, 0x6000, 8);
    });
    EXPECT_EQ(child.join().exitCode, 0) << "fork " << fork;
  }
  done = true;
  busy.join();
  EXPECT_EQ(wrong.load(), 0) << "the parent's thread lost accesses";
  EXPECT_TRUE(holdsWhatWasWritten(*second, kChildBase, 0x6000, 8));
}

}  // namespace
}  // namespace vorn
