// Reservations of simulated target memory: blocks carved first-fit out of one fixed region,
// each aligned to and rounded up to kAlignment bytes. Not thread-safe.
#pragma once

#include <cstdint>
#include <map>

#include "platform/protocol/AgentProtocol.h"

namespace kvx::sim {

class ReservationMap {
 public:
  static constexpr uint64_t kAlignment = 64;

  /// The region [base, base + size). Throws std::invalid_argument unless `base` is aligned
  /// and the region ends at or below 2^64.
  ReservationMap(uint64_t base, uint64_t size);

  /// Reserves the lowest free block of at least `size` bytes and stores its address. Refuses a
  /// size of 0 (kInvalidArgument) and a size that no free block can take (kNoSpace), which
  /// includes any size that would round up past 2^64. `address` is left alone on refusal.
  protocol::ReplyStatus reserve(uint64_t size, uint64_t& address);

  /// Releases the block that starts at `address`; kNotReserved for any other address, those
  /// outside the region included.
  protocol::ReplyStatus release(uint64_t address);

  /// Releases every block.
  void releaseAll();

 private:
  uint64_t m_base;
  uint64_t m_size;
  /// Reserved blocks, keyed by offset from m_base, holding their rounded length.
  std::map<uint64_t, uint64_t> m_blocks;
};

}  // namespace kvx::sim
