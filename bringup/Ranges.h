// Ranges of target memory and how they are cut into the plug-in's accesses. By default an access
// moves at most 8 bytes, the first up to the next 8-byte boundary, so that every access after it
// is aligned: a range of 20 bytes at 0x1003 goes as 5, 8 and 7 bytes. A transfer split between
// workers is cut at 8-byte boundaries, so that each part's accesses are those that one transfer
// of the whole range would make. Plain values and free functions.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kvx::bringup {

/// The most bytes one access moves, and the widest register.
constexpr unsigned kMaxAccessBytes = 8;

/// `length` bytes of target memory from `address` on; the range may end at the very top of the
/// 64-bit address space (address + length is then 0).
struct Range {
  uint64_t address = 0;
  uint64_t length = 0;

  /// The address of the last byte; meaningless for an empty range.
  uint64_t last() const { return address + (length - 1); }
  /// "0x1000-0x1fff".
  std::string text() const;
};

/// The range, checked: a usage Error when it runs past the top of the 64-bit address space.
Range checkedRange(uint64_t address, uint64_t length);

/// Throws a usage Error, naming the edge that is off, when `range` does not start and end on
/// multiples of `width` (1, 2, 4 or 8; 0 asks nothing).
void checkAligned(const Range& range, unsigned width);

/// `text` as an access width: 1, 2, 4 or 8. Throws a usage Error otherwise.
unsigned parseWidth(const std::string& text);

/// The size of the access at `address` with `remaining` bytes of the range to go.
constexpr unsigned accessSizeAt(uint64_t address, uint64_t remaining) {
  const uint64_t toBoundary = kMaxAccessBytes - address % kMaxAccessBytes;
  return static_cast<unsigned>(remaining < toBoundary ? remaining : toBoundary);
}

/// `range` in at most `jobs` contiguous parts of about equal length, cut at 8-byte boundaries:
/// fewer for a short range, none for an empty one.
std::vector<Range> splitRange(const Range& range, unsigned jobs);

}  // namespace kvx::bringup
