#include "bringup/transfer/Transfer.h"

#include <algorithm>
#include <thread>

#include "bringup/Error.h"
#include "bringup/Numbers.h"
#include "bringup/Target.h"

namespace kvx::bringup {

Transfer::Transfer(std::function<Target&()> target, Progress& progress, std::function<void()> checkpoint,
                   Options options)
    : m_target(std::move(target)),
      m_progress(progress),
      m_checkpoint(std::move(checkpoint)),
      m_options(std::move(options)) {}

void Transfer::advance(uint64_t bytes) {
  m_moved += bytes;
  m_progress.advance(bytes);
}

Error Transfer::howFar(const Error& failure, const char* verb, std::optional<uint64_t> total) const {
  std::string note =
      "; " + std::to_string(m_moved) + (total ? " of " + byteCount(*total) : " bytes") + " were " + verb;
  if (m_options.jobs > 1) {
    note += " by " + std::to_string(m_options.jobs) + " workers";
  } else if (m_lastAddress) {
    note += ", the last at " + hexAddress(*m_lastAddress);
  }
  return failure.explained(note);
}

void Transfer::checkpoint() const {
  if (m_checkpoint) m_checkpoint();
}

template <typename Access>
void Transfer::eachAccess(const Range& range, Access access) {
  for (uint64_t done = 0; done < range.length;) {
    checkpoint();
    const unsigned size =
        m_options.width != 0 ? m_options.width : accessSizeAt(range.address + done, range.length - done);
    if (!access(done, size)) return;
    done += size;
    if (size != 0) m_lastAddress = range.address + done - 1;
    advance(size);
  }
}

void Transfer::read(const Range& range, const Sink& sink) {
  Target& target = m_target();
  uint8_t bytes[kMaxAccessBytes];
  eachAccess(range, [&](uint64_t offset, unsigned size) {
    target.read(range.address + offset, bytes, size);
    sink(bytes, size);
    return true;
  });
}

void Transfer::write(const Range& range, const Source& source) {
  Target& target = m_target();
  uint8_t bytes[kMaxAccessBytes];
  eachAccess(range, [&](uint64_t offset, unsigned size) {
    source(offset, bytes, size);
    target.write(range.address + offset, bytes, size);
    return true;
  });
}

std::optional<Transfer::Mismatch> Transfer::verify(const Range& range, const Source& source) {
  Target& target = m_target();
  uint8_t expected[kMaxAccessBytes];
  uint8_t found[kMaxAccessBytes];
  std::optional<Mismatch> mismatch;
  eachAccess(range, [&](uint64_t offset, unsigned size) {
    source(offset, expected, size);
    target.read(range.address + offset, found, size);
    for (unsigned i = 0; i < size; ++i) {
      if (expected[i] != found[i]) {
        mismatch = Mismatch{range.address + offset + i, expected[i], found[i]};
        return false;
      }
    }
    return true;
  });
  return mismatch;
}

void sleepFor(std::chrono::milliseconds duration, const std::function<void()>& checkpoint) {
  // The longest nap between two checkpoints.
  constexpr std::chrono::milliseconds kLongestNap(50);
  using Clock = std::chrono::steady_clock;
  const Clock::time_point end = Clock::now() + duration;
  checkpoint();
  for (Clock::time_point now = Clock::now(); now < end; now = Clock::now()) {
    std::this_thread::sleep_for(std::min<Clock::duration>(end - now, kLongestNap));
    checkpoint();
  }
}

void checkTransferBound(uint64_t length, bool force) {
  if (length > kLargestUnforced && !force) {
    throw usageError("refusing to move " + byteCount(length) + " (more than " + byteCount(kLargestUnforced) +
                     "); add --force if that is what you meant");
  }
}

}  // namespace kvx::bringup
