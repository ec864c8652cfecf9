#include "bringup/Numbers.h"

#include <gtest/gtest.h>

#include "bringup/Error.h"

namespace kvx::test {
namespace {

TEST(NumbersTest, NumbersAreDecimalOrHexAndNothingElse) {
  EXPECT_EQ(bringup::parseNumber("4096", "size"), 4096u);
  EXPECT_EQ(bringup::parseNumber("0x1000", "size"), 4096u);
  for (const char* text : {"12ab", "010", "-1", " 1", "0x", "1k", "0x1ffffffffffffffff"}) {
    EXPECT_THROW(bringup::parseNumber(text, "address"), bringup::Error) << "case: " << text;
  }
  EXPECT_THROW(bringup::parseAccessSize("9"), bringup::Error);
}

TEST(NumbersTest, PatternsAreAsWideAsWritten) {
  EXPECT_EQ(bringup::parsePattern("0xa5", "pattern"), (std::vector<uint8_t>{0xa5}));
  EXPECT_EQ(bringup::parsePattern("0x000000a5", "pattern"), (std::vector<uint8_t>{0xa5, 0, 0, 0}));
  EXPECT_EQ(bringup::parsePattern("0x112233", "pattern"), (std::vector<uint8_t>{0x33, 0x22, 0x11}));
  EXPECT_EQ(bringup::parsePattern("256", "pattern"), (std::vector<uint8_t>{0x00, 0x01}));
  EXPECT_THROW(bringup::parsePattern("0x112233445566778899", "pattern"), bringup::Error);
}

}  // namespace
}  // namespace kvx::test
