#include "tools/Transfer.h"

#include "tools/Numbers.h"
#include "tools/Progress.h"
#include "tools/Target.h"

namespace kvx::cli {
namespace {

/// The size of the access at `address` with `remaining` bytes to go: up to the next 8-byte
/// boundary, so that every access after the first is aligned.
unsigned chunkAt(uint64_t address, uint64_t remaining) {
  const uint64_t toBoundary = kMaxAccessBytes - address % kMaxAccessBytes;
  return static_cast<unsigned>(remaining < toBoundary ? remaining : toBoundary);
}

}  // namespace

void Transfer::read(Target& target, uint64_t address, uint64_t length, Progress& progress, const Sink& sink) {
  uint8_t bytes[kMaxAccessBytes];
  for (uint64_t done = 0; done < length;) {
    const unsigned size = chunkAt(address + done, length - done);
    target.read(address + done, bytes, size);
    sink(bytes, size);
    done += size;
    progress.advance(size);
  }
}

void Transfer::write(Target& target, uint64_t address, const std::vector<uint8_t>& data, Progress& progress) {
  for (uint64_t done = 0; done < data.size();) {
    const unsigned size = chunkAt(address + done, data.size() - done);
    target.write(address + done, data.data() + done, size);
    done += size;
    progress.advance(size);
  }
}

std::optional<Transfer::Mismatch> Transfer::verify(Target& target, uint64_t address,
                                                   const std::vector<uint8_t>& data, Progress& progress) {
  uint8_t bytes[kMaxAccessBytes];
  for (uint64_t done = 0; done < data.size();) {
    const unsigned size = chunkAt(address + done, data.size() - done);
    target.read(address + done, bytes, size);
    for (unsigned i = 0; i < size; ++i) {
      if (bytes[i] != data[done + i]) {
        return Mismatch{address + done + i, data[done + i], bytes[i]};
      }
    }
    done += size;
    progress.advance(size);
  }
  return std::nullopt;
}

}  // namespace kvx::cli
