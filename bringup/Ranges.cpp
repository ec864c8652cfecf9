#include "bringup/Ranges.h"

#include <limits>

#include "bringup/Error.h"
#include "bringup/Numbers.h"

namespace kvx::bringup {

std::string Range::text() const { return hexAddress(address) + "-" + hexAddress(last()); }

Range checkedRange(uint64_t address, uint64_t length) {
  if (length != 0 && address > std::numeric_limits<uint64_t>::max() - (length - 1)) {
    throw usageError("the " + std::to_string(length) + " bytes at " + hexAddress(address) +
                     " run past the end of the 64-bit address space");
  }
  return {address, length};
}

void checkAligned(const Range& range, unsigned width) {
  if (width <= 1) return;
  if (range.address % width != 0) {
    throw usageError("the start " + hexAddress(range.address) + " is not a multiple of the width " +
                     std::to_string(width));
  }
  if (range.length % width != 0) {
    throw usageError("the end " + hexAddress(range.address + range.length) + " (" + byteCount(range.length) +
                     " from the start) is not a multiple of the width " + std::to_string(width));
  }
}

unsigned parseWidth(const std::string& text) {
  uint64_t width = 0;
  if (!parseUnsigned(text, width) || (width != 1 && width != 2 && width != 4 && width != 8)) {
    throw usageError("invalid width '" + text + "' (1, 2, 4 or 8)");
  }
  return static_cast<unsigned>(width);
}

std::vector<Range> splitRange(const Range& range, unsigned jobs) {
  std::vector<Range> parts;
  const uint64_t share = range.length / (jobs == 0 ? 1 : jobs);
  uint64_t start = range.address;
  for (unsigned i = 1; i < jobs && share >= kMaxAccessBytes; ++i) {
    const uint64_t boundary = (range.address + i * share) / kMaxAccessBytes * kMaxAccessBytes;
    if (boundary <= start) continue;
    parts.push_back({start, boundary - start});
    start = boundary;
  }
  // address + length may be 0: the range then reaches 2^64.
  if (range.length != 0) parts.push_back({start, range.address + range.length - start});
  return parts;
}

}  // namespace kvx::bringup
