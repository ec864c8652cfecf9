#include "tools/Transfer.h"

#include "common/Accesses.h"

#include "tools/Interrupt.h"
#include "tools/Numbers.h"
#include "tools/Progress.h"
#include "tools/Target.h"
#include "tools/UsageError.h"

namespace kvx::cli {
namespace {

/// Calls `access(offset, size)` for each access of the range, in address order.
template <typename Access>
void eachAccess(uint64_t address, uint64_t length, Progress& progress, Access access) {
  for (uint64_t done = 0; done < length;) {
    Interrupt::check();
    const unsigned size = common::accessSizeAt(address + done, length - done);
    if (!access(done, size)) return;
    done += size;
    progress.advance(size);
  }
}

}  // namespace

void Transfer::read(Target& target, uint64_t address, uint64_t length, Progress& progress, const Sink& sink) {
  uint8_t bytes[kMaxAccessBytes];
  eachAccess(address, length, progress, [&](uint64_t offset, unsigned size) {
    target.read(address + offset, bytes, size);
    sink(bytes, size);
    return true;
  });
}

void Transfer::write(Target& target, uint64_t address, uint64_t length, Progress& progress,
                     const Source& source) {
  uint8_t bytes[kMaxAccessBytes];
  eachAccess(address, length, progress, [&](uint64_t offset, unsigned size) {
    source(offset, bytes, size);
    target.write(address + offset, bytes, size);
    return true;
  });
}

std::optional<Transfer::Mismatch> Transfer::verify(Target& target, uint64_t address, uint64_t length,
                                                   Progress& progress, const Source& source) {
  uint8_t expected[kMaxAccessBytes];
  uint8_t found[kMaxAccessBytes];
  std::optional<Mismatch> mismatch;
  eachAccess(address, length, progress, [&](uint64_t offset, unsigned size) {
    source(offset, expected, size);
    target.read(address + offset, found, size);
    for (unsigned i = 0; i < size; ++i) {
      if (expected[i] != found[i]) {
        mismatch = Mismatch{address + offset + i, expected[i], found[i]};
        return false;
      }
    }
    return true;
  });
  return mismatch;
}

void Transfer::checkBound(uint64_t length, bool force) {
  if (length > kLargestUnforced && !force) {
    throw UsageError("refusing to move " + byteCount(length) + " (more than " + byteCount(kLargestUnforced) +
                     "); add --force if that is what you meant");
  }
}

}  // namespace kvx::cli
