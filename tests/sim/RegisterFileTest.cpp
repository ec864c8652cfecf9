// The simulated target's registers: which names exist, and values that do not fit their width.

#include "sim/RegisterFile.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace kvx::sim {
namespace {

using protocol::ReplyStatus;

TEST(RegisterFileTest, OnlyExactNamesExistAndValuesMustFitTheirWidth) {
  RegisterFile registers;
  uint64_t value = 0;
  uint8_t width = 0;
  for (const char* name : {"r0", "r9", "r10", "r63", "pc", "sp", "ra"}) {
    EXPECT_TRUE(registers.read(name, value, width)) << name;
  }
  for (const char* name : {"r64", "r01", "r00", "R1", "x0", "pc ", "r", "r1x"}) {
    EXPECT_FALSE(registers.read(name, value, width)) << name;
    EXPECT_EQ(registers.write(name, 1), ReplyStatus::kUnknownRegister) << name;
  }
  // ps is 32 bits wide: a value with a bit above them leaves it unchanged.
  EXPECT_EQ(registers.write("ps", 0xFFFFFFFF), ReplyStatus::kOk);
  EXPECT_EQ(registers.write("ps", 0x100000000), ReplyStatus::kValueTooWide);
  EXPECT_TRUE(registers.read("ps", value, width) && value == 0xFFFFFFFF && width == 4) << value;
  EXPECT_EQ(registers.write("r63", ~0ull), ReplyStatus::kOk);
  EXPECT_TRUE(registers.read("r63", value, width) && value == ~0ull && width == 8) << value;
}

}  // namespace
}  // namespace kvx::sim
