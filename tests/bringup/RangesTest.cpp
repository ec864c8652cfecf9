#include "bringup/Ranges.h"

#include <gtest/gtest.h>

#include "bringup/Error.h"

namespace kvx::test {
namespace {

using bringup::Range;

std::vector<unsigned> accessSizes(const Range& range) {
  std::vector<unsigned> sizes;
  for (uint64_t done = 0; done < range.length;) {
    sizes.push_back(bringup::accessSizeAt(range.address + done, range.length - done));
    done += sizes.back();
  }
  return sizes;
}

TEST(RangesTest, AccessesAlignAfterTheFirstAndReachTheTopOfTheAddressSpace) {
  EXPECT_EQ(accessSizes({0x1003, 20}), (std::vector<unsigned>{5, 8, 7}));
  EXPECT_EQ(accessSizes({0x1000, 16}), (std::vector<unsigned>{8, 8}));
  EXPECT_EQ(accessSizes({0xfffffffffffffffd, 3}), (std::vector<unsigned>{3}));
  EXPECT_EQ(bringup::checkedRange(0xfffffffffffffff0, 16).last(), 0xffffffffffffffff);
  EXPECT_THROW(bringup::checkedRange(0xfffffffffffffff0, 17), bringup::Error);
  EXPECT_EQ((Range{0x1000, 0x100}.text()), "0x1000-0x10ff");
}

TEST(RangesTest, PartsCoverTheRangeOnceAndCutAtEightByteBoundaries) {
  const struct {
    Range range;
    unsigned jobs;
    size_t parts;
  } cases[] = {
      {{0x1003, 1000}, 3, 3},
      {{0x1003, 20}, 4, 1},  // shares shorter than an access
      {{0x10, 7}, 4, 1},
      {{0xfffffffffffff000, 0x1000}, 4, 4},  // ends at 2^64
      {{0x1000, 0}, 4, 0},
  };
  for (const auto& c : cases) {
    const std::vector<Range> parts = bringup::splitRange(c.range, c.jobs);
    ASSERT_EQ(parts.size(), c.parts) << "case: " << c.range.text();
    uint64_t next = c.range.address;
    for (size_t i = 0; i < parts.size(); ++i) {
      EXPECT_EQ(parts[i].address, next) << "case: " << c.range.text() << " part " << i;
      if (i != 0) {
        EXPECT_EQ(parts[i].address % 8, 0u) << "case: " << c.range.text() << " part " << i;
      }
      next = parts[i].address + parts[i].length;
    }
    if (!parts.empty()) {
      EXPECT_EQ(next, c.range.address + c.range.length) << "case: " << c.range.text();
    }
  }
}

}  // namespace
}  // namespace kvx::test
