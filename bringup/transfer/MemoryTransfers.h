// The transfers over a range of target memory: dump, fill, CRC-32, and wait for a value. Each
// runs in this process, or split between workers when the transfer's options ask for more than
// one job; the result is the same either way.
#pragma once

#include <cstdint>
#include <vector>

#include "bringup/Ranges.h"
#include "bringup/transfer/Transfer.h"
#include "bringup/transfer/WorkerMessages.h"

namespace kvx::bringup {

/// Reads `range` and hands its bytes to `sink` in address order. Workers' parts, which arrive at
/// once and in any order, are put in order through a scratch file first.
void dump(Transfer& transfer, const Range& range, const Transfer::Sink& sink);

/// Writes `pattern` (1 to 8 bytes, in target memory order) over `range`, repeated from its first
/// byte on.
void fill(Transfer& transfer, const Range& range, const std::vector<uint8_t>& pattern);

/// The CRC-32 of `range`: zlib's, gzip's and Python's zlib.crc32.
uint32_t crc32(Transfer& transfer, const Range& range);

/// The addresses in `range` where `pattern` (1 to kMaxPattern bytes, in target memory order)
/// starts, in address order: at any byte, or only at multiples of the transfer's width. Workers
/// search their parts and hand the parent each part's first and last bytes, so that a match
/// across the seam of two parts is found without reading any byte twice.
std::vector<uint64_t> search(Transfer& transfer, const Range& range, const std::vector<uint8_t>& pattern);
/// The longest pattern that search takes.
constexpr size_t kMaxPattern = 256;

/// What search finds in one part, in this process: the matches wholly inside it, and its first
/// and last bytes (one fewer than the pattern has), which a worker hands the parent.
SearchResult searchPart(Transfer& transfer, const Range& range, const std::vector<uint8_t>& pattern);

/// What wait looks for: the `size` bytes at `address`, ANDed with `mask`, equal to `value`.
struct WaitCondition {
  uint64_t address = 0;
  unsigned size = 4;
  uint64_t value = 0;
  uint64_t mask = ~uint64_t{0};
  uint64_t timeoutMs = 5000;
  uint64_t intervalMs = 100;
};
/// The longest timeout and interval that wait takes, in milliseconds: about 49 days.
constexpr uint64_t kMaxWaitMs = 0xffffffffu;

/// Reads the condition's bytes every interval until they match, and returns the value read.
/// Never sleeps past the timeout, and calls the checkpoint at least every 50 ms while it sleeps.
/// Throws Error (kTarget) at the timeout, with the last value read; a usage Error for a
/// condition that can never hold or times beyond kMaxWaitMs.
uint64_t waitFor(Transfer& transfer, const WaitCondition& condition);

}  // namespace kvx::bringup
