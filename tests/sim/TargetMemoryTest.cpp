// The simulated target's memory: a denied range is closed from its first to its last byte, and
// the page limit counts every page a write would add.

#include "sim/TargetMemory.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace kvx::sim {
namespace {

using protocol::ReplyStatus;

constexpr uint64_t kPage = 4096;
const uint8_t kData[8] = {1, 2, 3, 4, 5, 6, 7, 8};

TEST(TargetMemoryTest, DeniedRangeAndPageLimitHoldToTheByteAndThePage) {
  TargetMemory memory(16 * kPage, {{0x1000, 0x10}});
  uint8_t out[8];
  for (const uint64_t address : {0xFF9, 0x100F}) {
    EXPECT_EQ(memory.write(address, kData, 8), ReplyStatus::kDenied) << std::hex << address;
    EXPECT_EQ(memory.read(address, out, 8), ReplyStatus::kDenied) << std::hex << address;
  }
  for (const uint64_t address : {0xFF8, 0x1010}) {
    EXPECT_EQ(memory.write(address, kData, 8), ReplyStatus::kOk) << std::hex << address;
    EXPECT_EQ(memory.read(address, out, 8), ReplyStatus::kOk) << std::hex << address;
  }

  // A write across two pages needs room for both.
  TargetMemory small(2 * kPage, {});
  ASSERT_EQ(small.write(0, kData, 1), ReplyStatus::kOk);
  EXPECT_EQ(small.write(2 * kPage - 4, kData, 8), ReplyStatus::kOutOfMemory) << "pages 1 and 2, room for one";
  // The top of the address space wraps to page 0, which is held already.
  EXPECT_EQ(small.write(~0ull - 3, kData, 8), ReplyStatus::kOk);
  EXPECT_TRUE(small.read(0, out, 1) == ReplyStatus::kOk && out[0] == 5) << unsigned{out[0]};
  EXPECT_EQ(small.bytesHeld(), 2 * kPage);
}

}  // namespace
}  // namespace kvx::sim
