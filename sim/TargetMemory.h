// The simulated target's memory: a sparse 64-bit byte-addressed space held in 4 KiB pages.
// Bytes never written read as zero. Pages are created on the first write to them, up to a fixed
// cap, so no request can make the simulator grow without bound. Not thread-safe.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "platform/protocol/AgentProtocol.h"
#include "sim/SimOptions.h"

namespace kvx::sim {

class TargetMemory {
 public:
  /// `limitBytes` caps the pages held; accesses touching any of `denied` are refused.
  TargetMemory(uint64_t limitBytes, std::vector<DenyRange> denied);

  TargetMemory(const TargetMemory&) = delete;
  TargetMemory& operator=(const TargetMemory&) = delete;

  /// Copies `size` (at most 8) bytes from `address` on into `out`. Addresses wrap at 2^64.
  protocol::ReplyStatus read(uint64_t address, uint8_t* out, uint32_t size) const;

  /// Stores `size` (at most 8) bytes at `address`: all of them, or, when refused, none.
  protocol::ReplyStatus write(uint64_t address, const uint8_t* data, uint32_t size);

  /// The bytes held in pages, counted against the limit.
  uint64_t bytesHeld() const;

 private:
  static constexpr uint64_t kPageSize = 4096;
  using Page = std::array<uint8_t, kPageSize>;

  bool isDenied(uint64_t address, uint32_t size) const;

  uint64_t m_limitBytes;
  std::vector<DenyRange> m_denied;
  std::unordered_map<uint64_t, std::unique_ptr<Page>> m_pages;  ///< keyed by address / kPageSize
};

}  // namespace kvx::sim
