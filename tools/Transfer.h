// Bulk transfers between kvx-ta and target memory. The agent moves at most 8 bytes an access, so
// a range goes as one access up to the next 8-byte boundary, then aligned 8-byte accesses, then
// the remainder. Each transfer reports its progress, stops at a Ctrl-C, and is never retried.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>

namespace kvx::cli {

class Progress;
class Target;

class Transfer {
 public:
  /// Receives the bytes read, in address order, one access at a time.
  using Sink = std::function<void(const uint8_t* bytes, size_t count)>;
  /// Fills `bytes` with the `count` bytes of the range that start `offset` bytes into it.
  using Source = std::function<void(uint64_t offset, uint8_t* bytes, size_t count)>;

  /// Where the target differed from what was expected.
  struct Mismatch {
    uint64_t address;
    uint8_t expected;
    uint8_t found;
  };

  /// Reads the `length` bytes from `address` into `sink`. Throws as Target::read does.
  static void read(Target& target, uint64_t address, uint64_t length, Progress& progress, const Sink& sink);
  /// Writes `length` bytes from `source` from `address` on.
  static void write(Target& target, uint64_t address, uint64_t length, Progress& progress,
                    const Source& source);
  /// Reads `length` bytes from `address` and stops at the first that differs from `source`.
  static std::optional<Mismatch> verify(Target& target, uint64_t address, uint64_t length, Progress& progress,
                                        const Source& source);

  /// The most bytes a transfer moves without --force: a mistyped length must not run for hours.
  static constexpr uint64_t kLargestUnforced = 256ull << 20;
  /// Throws UsageError when `length` is above kLargestUnforced and `force` is not set.
  static void checkBound(uint64_t length, bool force);
};

}  // namespace kvx::cli
