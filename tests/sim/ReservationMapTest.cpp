// The simulated agent's reservation region: first fit, rounding, and the region's edges, the
// one at 2^64 above all.

#include "sim/ReservationMap.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <vector>

namespace {

using kvx::protocol::ReplyStatus;
using kvx::sim::ReservationMap;

constexpr uint64_t kMax = UINT64_MAX;
constexpr uint64_t kTopBase = 0xffffffffff000000;  ///< a 16 MiB region below 2^64 starts here

/// One call on the map and its expected answer. `address`: where a reservation must land.
struct Step {
  enum Kind { kReserve, kRelease } kind;
  uint64_t value;
  ReplyStatus status;
  uint64_t address;
};

Step reserve(uint64_t size, uint64_t address) { return {Step::kReserve, size, ReplyStatus::kOk, address}; }
Step refuse(uint64_t size, ReplyStatus status = ReplyStatus::kNoSpace) {
  return {Step::kReserve, size, status, 0};
}
Step release(uint64_t address, ReplyStatus status = ReplyStatus::kOk) {
  return {Step::kRelease, address, status, 0};
}

TEST(ReservationMapTest, ReservesFirstFitWithinTheRegionUpToItsEdges) {
  const struct {
    const char* name;
    uint64_t base;
    uint64_t size;
    std::vector<Step> steps;
  } cases[] = {
      {"first fit, rounded up to 64 bytes, to the last byte",
       0x1000,
       0x1000,
       {reserve(1, 0x1000), reserve(65, 0x1040), reserve(64, 0x10c0), release(0x1040), reserve(64, 0x1040),
        reserve(64, 0x1080), reserve(1, 0x1100), release(0x1041, ReplyStatus::kNotReserved),
        release(0x2000, ReplyStatus::kNotReserved), refuse(0, ReplyStatus::kInvalidArgument), refuse(0x1001),
        reserve(0xec0, 0x1140), refuse(1)}},
      {"region ending at 2^64",
       kTopBase,
       0x1000000,
       {refuse(kMax), refuse(kMax - 62), reserve(0xffffc0, kTopBase), reserve(1, kMax - 63), refuse(1),
        release(0, ReplyStatus::kNotReserved), release(kMax - 63), reserve(64, kMax - 63)}},
      // The one region that a size rounding up past 2^64 would seem to fit.
      {"region of all but the last byte below 2^64",
       0,
       kMax,
       {refuse(kMax), refuse(kMax - 62), reserve(kMax - 63, 0), refuse(1), release(0), reserve(64, 0)}},
  };
  for (const auto& c : cases) {
    ReservationMap map(c.base, c.size);
    for (size_t i = 0; i < c.steps.size(); ++i) {
      const Step& step = c.steps[i];
      uint64_t address = 0;  // stays 0 on a release or a refusal
      const ReplyStatus status =
          step.kind == Step::kReserve ? map.reserve(step.value, address) : map.release(step.value);
      EXPECT_EQ(status, step.status) << "case: " << c.name << ", step " << i;
      EXPECT_EQ(address, step.address) << "case: " << c.name << ", step " << i;
    }
  }
  EXPECT_THROW(ReservationMap(kTopBase, 0x1000001), std::invalid_argument) << "a region past 2^64";
}

}  // namespace
