#include "bringup/Error.h"

#include <cerrno>

#include <gtest/gtest.h>

namespace kvx::test {
namespace {

using bringup::Error;

TEST(ErrorTest, MessageJoinsWhatWasAttemptedAndWhyAndContextKeepsTheRest) {
  const Error refused(Error::Kind::kTarget, "cannot read 4 bytes at 0x108", "access denied", "plug-in said",
                      Error::AgentCall{"io_read", -12, 0x108, std::nullopt});
  EXPECT_STREQ(refused.what(), "cannot read 4 bytes at 0x108: access denied");
  const Error inScript = refused.locatedAt("setup.kvx", 3).suffixed(" (the worker for 0x0-0xf)");
  EXPECT_STREQ(inScript.what(), "cannot read 4 bytes at 0x108 (the worker for 0x0-0xf): access denied");
  ASSERT_TRUE(inScript.location().has_value());
  EXPECT_EQ(inScript.location()->line, 3u);
  EXPECT_EQ(inScript.kind(), Error::Kind::kTarget);
  EXPECT_EQ(inScript.detail(), "plug-in said");
  ASSERT_TRUE(inScript.call().has_value());
  EXPECT_EQ(inScript.call()->status, -12);

  EXPECT_STREQ(bringup::usageError("invalid size '9' (1 to 8)").what(), "invalid size '9' (1 to 8)");
  const Error file = bringup::fileError("write", "/dev/full", ENOSPC);
  EXPECT_EQ(file.kind(), Error::Kind::kFile);
  EXPECT_STREQ(file.what(), "cannot write '/dev/full': No space left on device");
}

}  // namespace
}  // namespace kvx::test
