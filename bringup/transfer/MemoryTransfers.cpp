#include "bringup/transfer/MemoryTransfers.h"

#include <algorithm>
#include <chrono>
#include <string>

#include <zlib.h>

#include "bringup/Error.h"
#include "bringup/Numbers.h"
#include "bringup/Target.h"
#include "bringup/file/ScratchFile.h"
#include "bringup/transfer/WorkerMessages.h"
#include "bringup/transfer/Workers.h"

namespace kvx::bringup {
namespace {

bool parallel(const Transfer& transfer) { return transfer.options().jobs > 1; }

}  // namespace

void dump(Transfer& transfer, const Range& range, const Transfer::Sink& sink) {
  transfer.checkBound(range.length);
  if (!parallel(transfer)) {
    transfer.read(range, sink);
    return;
  }
  // The parts arrive at once and in any order; the sink takes them in address order.
  const std::vector<Range> parts = splitRange(range, transfer.options().jobs);
  std::vector<uint64_t> received(parts.size(), 0);
  ScratchFile inOrder(sink);
  runWorkers(
      transfer, parts, [&](const Range& part) { return dumpPartCommand(part, transfer.options().width); },
      [&](size_t index, const uint8_t* bytes, size_t size) {
        if (size > parts[index].length - received[index]) {
          throw Error(Error::Kind::kTarget, "cannot read " + parts[index].text(),
                      "its worker delivered too many bytes");
        }
        inOrder.writeAt(parts[index].address - range.address + received[index], bytes, size);
        received[index] += size;
      });
  if (inOrder.delivered() != range.length) {
    throw Error(Error::Kind::kTarget, "cannot read " + range.text(), "a worker delivered too few bytes");
  }
}

void fill(Transfer& transfer, const Range& range, const std::vector<uint8_t>& pattern) {
  transfer.checkBound(range.length);
  const size_t width = pattern.size();
  if (!parallel(transfer)) {
    transfer.write(range, [&](uint64_t offset, uint8_t* bytes, size_t count) {
      for (size_t i = 0; i < count; ++i) bytes[i] = pattern[(offset + i) % width];
    });
    return;
  }
  // Each worker's pattern starts where the range's pattern is at its part.
  runWorkers(
      transfer, splitRange(range, transfer.options().jobs),
      [&](const Range& part) {
        std::vector<uint8_t> rotated(width);
        for (size_t i = 0; i < width; ++i) rotated[i] = pattern[(part.address - range.address + i) % width];
        return fillPartCommand(part, rotated, transfer.options().width);
      },
      [](size_t, const uint8_t*, size_t) {});
}

uint32_t crc32(Transfer& transfer, const Range& range) {
  transfer.checkBound(range.length);
  uLong crc = ::crc32(0, nullptr, 0);
  if (!parallel(transfer)) {
    transfer.read(range, [&crc](const uint8_t* bytes, size_t count) {
      crc = ::crc32(crc, bytes, static_cast<uInt>(count));
    });
    return static_cast<uint32_t>(crc);
  }
  // Each worker's CRC of its part, joined in address order as zlib joins them.
  const std::vector<Range> parts = splitRange(range, transfer.options().jobs);
  std::vector<std::string> results(parts.size());
  runWorkers(
      transfer, parts, [&](const Range& part) { return crc32PartCommand(part, transfer.options().width); },
      [&](size_t index, const uint8_t* bytes, size_t size) {
        results[index].append(reinterpret_cast<const char*>(bytes), size);
      });
  for (size_t index = 0; index < parts.size(); ++index) {
    const WorkerMessage result = parseWorkerMessage(results[index]);
    if (!result.crc32) {
      throw Error(Error::Kind::kTarget, "cannot compute the CRC-32 of " + parts[index].text(),
                  "its worker gave no result");
    }
    crc = ::crc32_combine(crc, *result.crc32, static_cast<z_off_t>(parts[index].length));
  }
  return static_cast<uint32_t>(crc);
}

namespace {

/// Finds a pattern in bytes that arrive in order, a piece at a time, and remembers the first and
/// the last bytes it saw, for the seams between workers' parts.
class Matcher {
 public:
  Matcher(uint64_t address, const std::vector<uint8_t>& pattern, unsigned step)
      : m_address(address), m_pattern(pattern), m_step(step == 0 ? 1 : step) {}

  void feed(const uint8_t* bytes, size_t count) {
    for (size_t i = 0; i < count; ++i) {
      m_window.push_back(bytes[i]);
      if (m_head.size() + 1 < m_pattern.size()) m_head.push_back(bytes[i]);
      if (m_window.size() > m_pattern.size()) m_window.erase(m_window.begin());
      ++m_seen;
      const uint64_t start = m_address + (m_seen - m_window.size());
      if (m_window.size() == m_pattern.size() && start % m_step == 0 && m_window == m_pattern) {
        m_matches.push_back(start);
      }
    }
  }

  const std::vector<uint64_t>& matches() const { return m_matches; }
  /// The first bytes seen, one fewer than the pattern has at most.
  const std::vector<uint8_t>& head() const { return m_head; }
  /// The last bytes seen, one fewer than the pattern has at most.
  std::vector<uint8_t> tail() const {
    return m_window.size() < m_pattern.size() ? m_window
                                              : std::vector<uint8_t>(m_window.begin() + 1, m_window.end());
  }

 private:
  uint64_t m_address;
  const std::vector<uint8_t>& m_pattern;
  unsigned m_step;
  uint64_t m_seen = 0;
  std::vector<uint8_t> m_window;
  std::vector<uint8_t> m_head;
  std::vector<uint64_t> m_matches;
};

}  // namespace

SearchResult searchPart(Transfer& transfer, const Range& range, const std::vector<uint8_t>& pattern) {
  transfer.checkBound(range.length);
  Matcher matcher(range.address, pattern, transfer.options().width);
  transfer.read(range, [&](const uint8_t* bytes, size_t count) { matcher.feed(bytes, count); });
  return {matcher.matches(), matcher.head(), matcher.tail()};
}

std::vector<uint64_t> search(Transfer& transfer, const Range& range, const std::vector<uint8_t>& pattern) {
  if (pattern.empty() || pattern.size() > kMaxPattern) {
    throw usageError("invalid pattern of " + byteCount(pattern.size()) + " (1 to " +
                     std::to_string(kMaxPattern) + " bytes)");
  }
  transfer.checkBound(range.length);
  if (!parallel(transfer)) return searchPart(transfer, range, pattern).matches;
  // Every part at least as long as the pattern, so that a match spans at most two parts.
  const unsigned jobs = static_cast<unsigned>(
      std::max<uint64_t>(1, std::min<uint64_t>(transfer.options().jobs, range.length / pattern.size())));
  const std::vector<Range> parts = splitRange(range, jobs);
  std::vector<std::string> results(parts.size());
  runWorkers(
      transfer, parts,
      [&](const Range& part) { return searchPartCommand(part, pattern, transfer.options().width); },
      [&](size_t index, const uint8_t* bytes, size_t size) {
        results[index].append(reinterpret_cast<const char*>(bytes), size);
      });
  std::vector<uint64_t> matches;
  std::optional<SearchResult> previous;
  for (size_t index = 0; index < parts.size(); ++index) {
    const WorkerMessage message = parseWorkerMessage(results[index]);
    if (!message.search) {
      throw Error(Error::Kind::kTarget, "cannot search " + parts[index].text(), "its worker gave no result");
    }
    if (previous) {
      // The seam: the last bytes of the part before and the first of this one.
      std::vector<uint8_t> seam = previous->tail;
      seam.insert(seam.end(), message.search->head.begin(), message.search->head.end());
      Matcher across(parts[index].address - previous->tail.size(), pattern, transfer.options().width);
      across.feed(seam.data(), seam.size());
      matches.insert(matches.end(), across.matches().begin(), across.matches().end());
    }
    matches.insert(matches.end(), message.search->matches.begin(), message.search->matches.end());
    previous = message.search;
  }
  return matches;
}

uint64_t waitFor(Transfer& transfer, const WaitCondition& condition) {
  const unsigned size = condition.size;
  const uint64_t all = size < kMaxAccessBytes ? (uint64_t{1} << (8 * size)) - 1 : ~uint64_t{0};
  const uint64_t mask = condition.mask & all;
  if ((condition.value & mask) != condition.value) {
    throw usageError("invalid value " + hexAddress(condition.value) +
                     " (it has bits the mask clears: it never comes)");
  }
  for (const auto& [ms, what] :
       {std::pair{condition.timeoutMs, "timeout"}, std::pair{condition.intervalMs, "interval"}}) {
    if (ms > kMaxWaitMs) {
      throw usageError("invalid " + std::string(what) + " '" + std::to_string(ms) + "' (at most " +
                       std::to_string(kMaxWaitMs) + " ms)");
    }
  }
  using Clock = std::chrono::steady_clock;
  const Clock::time_point end = Clock::now() + std::chrono::milliseconds(condition.timeoutMs);
  Target& target = transfer.target();
  uint8_t bytes[kMaxAccessBytes];
  for (;;) {
    transfer.checkpoint();
    target.read(condition.address, bytes, size);
    const uint64_t read = fromTargetBytes(bytes, size);
    if ((read & mask) == condition.value) return read;
    const Clock::time_point now = Clock::now();
    if (now >= end) {
      throw Error(Error::Kind::kTarget,
                  "waited " + std::to_string(condition.timeoutMs) + " ms for " +
                      hexPadded(condition.value, 2 * size) + " at " + hexAddress(condition.address) +
                      (mask == all ? "" : " under mask " + hexPadded(mask, 2 * size)),
                  "the last value read was " + hexPadded(read, 2 * size));
    }
    // The next read comes after the interval, or at the timeout if that comes first.
    const Clock::time_point next = std::min(now + std::chrono::milliseconds(condition.intervalMs), end);
    sleepFor(std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now()),
             [&] { transfer.checkpoint(); });
  }
}

}  // namespace kvx::bringup
