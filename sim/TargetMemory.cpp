#include "sim/TargetMemory.h"

#include <utility>

namespace kvx::sim {

using protocol::ReplyStatus;

TargetMemory::TargetMemory(uint64_t limitBytes, std::vector<DenyRange> denied)
    : m_limitBytes(limitBytes), m_denied(std::move(denied)) {}

ReplyStatus TargetMemory::read(uint64_t address, uint8_t* out, uint32_t size) const {
  if (isDenied(address, size)) return ReplyStatus::kDenied;
  for (uint32_t i = 0; i < size; ++i) {
    const uint64_t byteAddress = address + i;
    const auto page = m_pages.find(byteAddress / kPageSize);
    out[i] = page == m_pages.end() ? 0 : (*page->second)[byteAddress % kPageSize];
  }
  return ReplyStatus::kOk;
}

ReplyStatus TargetMemory::write(uint64_t address, const uint8_t* data, uint32_t size) {
  if (isDenied(address, size)) return ReplyStatus::kDenied;
  if (size == 0) return ReplyStatus::kOk;

  // An access of at most 8 bytes spans at most two pages: its first and its last byte's.
  const uint64_t firstPage = address / kPageSize;
  const uint64_t lastPage = (address + size - 1) / kPageSize;
  uint64_t missing = m_pages.count(firstPage) == 0 ? 1 : 0;
  if (lastPage != firstPage && m_pages.count(lastPage) == 0) ++missing;
  if (missing > 0 && (m_limitBytes / kPageSize) - m_pages.size() < missing) return ReplyStatus::kOutOfMemory;

  for (uint32_t i = 0; i < size; ++i) {
    const uint64_t byteAddress = address + i;
    std::unique_ptr<Page>& page = m_pages[byteAddress / kPageSize];
    if (!page) page = std::make_unique<Page>();  // value-initialised: zeros
    (*page)[byteAddress % kPageSize] = data[i];
  }
  return ReplyStatus::kOk;
}

uint64_t TargetMemory::bytesHeld() const { return m_pages.size() * kPageSize; }

bool TargetMemory::isDenied(uint64_t address, uint32_t size) const {
  for (const DenyRange& range : m_denied) {
    for (uint32_t i = 0; i < size; ++i) {
      // Unsigned difference: correct across the wrap at 2^64 on either side.
      if (address + i - range.start < range.length) return true;
    }
  }
  return false;
}

}  // namespace kvx::sim
