// Bulk transfers between kvx-ta and target memory. The agent moves at most 8 bytes an access, so
// a range goes as one access up to the next 8-byte boundary, then aligned 8-byte accesses, then
// the remainder. Each transfer reports its progress; none is retried.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace kvx::cli {

class Progress;
class Target;

class Transfer {
 public:
  /// Receives the bytes read, in address order, one access at a time.
  using Sink = std::function<void(const uint8_t* bytes, size_t count)>;

  /// Where a read-back differed from what was written.
  struct Mismatch {
    uint64_t address;
    uint8_t written;
    uint8_t read;
  };

  /// Reads the `length` bytes from `address` into `sink`. Throws as Target::read does.
  static void read(Target& target, uint64_t address, uint64_t length, Progress& progress, const Sink& sink);
  /// Writes `data` from `address` on.
  static void write(Target& target, uint64_t address, const std::vector<uint8_t>& data, Progress& progress);
  /// Reads back `data.size()` bytes from `address` and stops at the first byte that differs.
  static std::optional<Mismatch> verify(Target& target, uint64_t address, const std::vector<uint8_t>& data,
                                        Progress& progress);
};

}  // namespace kvx::cli
