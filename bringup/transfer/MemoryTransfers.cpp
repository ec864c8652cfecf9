#include "bringup/transfer/MemoryTransfers.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>

#include <zlib.h>

#include "bringup/Error.h"
#include "bringup/Numbers.h"
#include "bringup/Target.h"
#include "bringup/file/ScratchFile.h"
#include "bringup/transfer/WorkerMessages.h"
#include "bringup/transfer/Workers.h"

namespace kvx::bringup {
namespace {

/// The longest single sleep of wait, so that a checkpoint runs often enough to stop it at once.
constexpr std::chrono::milliseconds kLongestNap(50);

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
  runWorkers(transfer, parts, dumpPartCommand, [&](size_t index, const uint8_t* bytes, size_t size) {
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
        return fillPartCommand(part, rotated);
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
  runWorkers(transfer, parts, crc32PartCommand, [&](size_t index, const uint8_t* bytes, size_t size) {
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
    for (Clock::time_point at = Clock::now(); at < next; at = Clock::now()) {
      std::this_thread::sleep_for(std::min<Clock::duration>(next - at, kLongestNap));
      transfer.checkpoint();
    }
  }
}

}  // namespace kvx::bringup
