// Where an image's bytes go: the addresses the file holds, moved by the offset the user gave,
// each range checked against the top of the 64-bit address space and against the access width.
// Every image format places its records through one of these. A value; immutable once made.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kvx::bringup {

struct ImageOptions;

class Placement {
 public:
  /// The offset is options.address (raw binary: where it goes), the width options.width. Throws
  /// a usage Error for a width other than 0, 1, 2, 4 or 8.
  explicit Placement(const ImageOptions& options);

  uint64_t offset() const { return m_offset; }
  unsigned width() const { return m_width; }

  /// Where the `length` bytes that the file puts at `fileAddress` go. Throws a usage Error when
  /// they would pass the top of the 64-bit address space.
  uint64_t place(uint64_t fileAddress, uint64_t length) const;
  /// `entry` moved by the offset; none stays none. Throws as place() does.
  std::optional<uint64_t> placeEntry(std::optional<uint64_t> entry) const;
  /// Throws a usage Error when the `length` bytes that go to `address` do not start and end on
  /// a multiple of the width; `record` names them ("the record on line 3 of 'fw.hex'").
  void checkWidth(uint64_t address, uint64_t length, const std::string& record) const;

 private:
  uint64_t m_offset;
  unsigned m_width;
};

/// "0x100-0x10f": the first and the last address of `length` bytes (at least one) at `address`.
std::string addressRange(uint64_t address, uint64_t length);

}  // namespace kvx::bringup
