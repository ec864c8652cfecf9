// How a range of target memory is cut into the plug-in's accesses: at most 8 bytes each, the
// first up to the next 8-byte boundary so that every access after it is aligned. kvx-ta and the
// Python package both cut ranges this way.
#pragma once

#include <cstdint>

namespace kvx::common {

/// The most bytes one access moves, and the widest register.
constexpr unsigned kMaxAccessBytes = 8;

/// The size of the access at `address` with `remaining` bytes of the range to go.
constexpr unsigned accessSizeAt(uint64_t address, uint64_t remaining) {
  const uint64_t toBoundary = kMaxAccessBytes - address % kMaxAccessBytes;
  return static_cast<unsigned>(remaining < toBoundary ? remaining : toBoundary);
}

}  // namespace kvx::common
