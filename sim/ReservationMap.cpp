#include "sim/ReservationMap.h"

#include <stdexcept>

namespace kvx::sim {

using protocol::ReplyStatus;

ReservationMap::ReservationMap(uint64_t base, uint64_t size) : m_base(base), m_size(size) {
  if (base % kAlignment != 0) throw std::invalid_argument("the reservation base must be 64-byte aligned");
  if (base + size < base && base + size != 0) {
    throw std::invalid_argument("the reservation region must end at or below 2^64");
  }
}

ReplyStatus ReservationMap::reserve(uint64_t size, uint64_t& address) {
  if (size == 0) return ReplyStatus::kInvalidArgument;
  // Checked before rounding, which would otherwise overflow for sizes near 2^64.
  if (size > m_size) return ReplyStatus::kNoSpace;
  const uint64_t length = (size + kAlignment - 1) / kAlignment * kAlignment;

  // Offsets from m_base keep every sum below m_size, so nothing here can overflow.
  uint64_t candidate = 0;
  for (const auto& [offset, blockLength] : m_blocks) {
    if (offset - candidate >= length) break;
    candidate = offset + blockLength;
  }
  if (m_size - candidate < length) return ReplyStatus::kNoSpace;
  m_blocks.emplace(candidate, length);
  address = m_base + candidate;
  return ReplyStatus::kOk;
}

ReplyStatus ReservationMap::release(uint64_t address) {
  const auto block = m_blocks.find(address - m_base);
  if (address < m_base || block == m_blocks.end()) return ReplyStatus::kNotReserved;
  m_blocks.erase(block);
  return ReplyStatus::kOk;
}

void ReservationMap::releaseAll() { m_blocks.clear(); }

}  // namespace kvx::sim
