#include "bringup/transfer/WorkerMessages.h"

#include <gtest/gtest.h>

namespace kvx::test {
namespace {

using bringup::Error;

TEST(WorkerMessagesTest, WhatAWorkerWritesItsParentReadsBack) {
  const Error refused(Error::Kind::kConnection, "cannot read 8 bytes at 0x1000", "the agent is gone");
  const bringup::WorkerMessage failure = bringup::parseWorkerMessage(bringup::failureMessage(refused));
  ASSERT_TRUE(failure.failure.has_value());
  EXPECT_EQ(failure.failure->kind(), Error::Kind::kConnection);
  EXPECT_STREQ(failure.failure->what(), refused.what());

  EXPECT_EQ(bringup::parseWorkerMessage(bringup::progressMessage(4096)).progress, 4096u);
  EXPECT_EQ(bringup::parseWorkerMessage(bringup::crc32Message(0xcbf43926)).crc32, 0xcbf43926u);
  const bringup::WorkerMessage nothing = bringup::parseWorkerMessage("kvx-ta: started kvx-agent-sim");
  EXPECT_FALSE(nothing.progress || nothing.failure || nothing.crc32);

  const bringup::Range top{0xfffffffffffffff0, 16};
  const std::optional<bringup::Range> part = bringup::parsePartOption(bringup::partOption(top));
  ASSERT_TRUE(part.has_value());
  EXPECT_EQ(part->address, top.address);
  EXPECT_EQ(part->length, top.length);
  EXPECT_FALSE(bringup::parsePartOption("0x20:0x10").has_value());
}

TEST(WorkerMessagesTest, AFillPartStartsWithThePatternBytesOfItsFirstAddress) {
  // As kvx-ta reads a pattern: hex digits, most significant byte first.
  EXPECT_EQ(bringup::fillPartCommand({0x20, 8}, {0x33, 0x11, 0x22}, 0),
            (std::vector<std::string>{"fill", "0x20", "8", "0x221133"}));
}

}  // namespace
}  // namespace kvx::test
