#include "sim/ReservationMap.h"

#include <limits>
#include <stdexcept>

namespace kvx::sim {

using protocol::ReplyStatus;

namespace {

/// The largest size that rounds up to a multiple of the alignment without wrapping past 2^64.
constexpr uint64_t kLargestRoundableSize =
    std::numeric_limits<uint64_t>::max() / ReservationMap::kAlignment * ReservationMap::kAlignment;

}  // namespace

ReservationMap::ReservationMap(uint64_t base, uint64_t size) : m_base(base), m_size(size) {
  if (base % kAlignment != 0) throw std::invalid_argument("the reservation base must be 64-byte aligned");
  // 2^64 - base bytes lie above a non-zero base; in 64-bit arithmetic that is 0 - base.
  if (base != 0 && size > 0 - base) {
    throw std::invalid_argument("the reservation region must end at or below 2^64");
  }
}

ReplyStatus ReservationMap::reserve(uint64_t size, uint64_t& address) {
  if (size == 0) return ReplyStatus::kInvalidArgument;
  // Both checked before rounding: a size near 2^64 would round up to 0.
  if (size > kLargestRoundableSize || size > m_size) return ReplyStatus::kNoSpace;
  const uint64_t length = (size + kAlignment - 1) / kAlignment * kAlignment;

  // Offsets from m_base keep every block end at or below m_size, so nothing here can overflow.
  uint64_t candidate = 0;
  for (const auto& [offset, blockLength] : m_blocks) {
    if (offset - candidate >= length) break;
    candidate = offset + blockLength;
  }
  if (m_size - candidate < length) return ReplyStatus::kNoSpace;
  // A gap of at least one non-empty length starts at no block, so the insertion cannot collide;
  // should it ever, handing out an address twice would be worse than refusing.
  if (!m_blocks.emplace(candidate, length).second) return ReplyStatus::kNoSpace;
  address = m_base + candidate;
  return ReplyStatus::kOk;
}

ReplyStatus ReservationMap::release(uint64_t address) {
  if (address < m_base) return ReplyStatus::kNotReserved;
  const auto block = m_blocks.find(address - m_base);
  if (block == m_blocks.end()) return ReplyStatus::kNotReserved;
  m_blocks.erase(block);
  return ReplyStatus::kOk;
}

void ReservationMap::releaseAll() { m_blocks.clear(); }

}  // namespace kvx::sim
