// Formats bytes as the classic hex-and-ASCII dump, 16 a line, as they arrive:
//
//   00001000:  48 65 6c 6c 6f 2c 20 74  61 72 67 65 74 0a 00 00  |Hello, target...|
//
// The address column has 8 digits, or 16 when the range reaches above 4 GiB. Lines start at the
// first address and every 16 bytes after it. With --json each line is a result of its own,
// {"address": "0x10003", "bytes": "48656c6c6f"}. Single-threaded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kvx::cli {

class Output;

/// How many hex digits an address column takes for a range that ends at `last`: 8, or 16 above
/// 4 GiB.
int addressDigits(uint64_t last);

/// A line of a word view: the address, then `values`, each zero-padded to `width` bytes:
/// "00001000:  00000001 00000002 00000003 00000004".
std::string wordLine(uint64_t address, int digits, unsigned width, const std::vector<uint64_t>& values);

class HexDump {
 public:
  /// A dump of the `length` bytes from `address` onto `out`.
  HexDump(Output& out, uint64_t address, uint64_t length);

  /// Adds the next `count` bytes, printing every line they complete.
  void append(const uint8_t* bytes, size_t count);
  /// Prints the last, partial line, if any.
  void finish();

 private:
  static constexpr size_t kBytesPerLine = 16;

  void printLine();

  Output& m_out;
  int m_addressDigits;
  /// The address of the line being collected.
  uint64_t m_lineAddress;
  uint8_t m_line[kBytesPerLine] = {};
  size_t m_filled = 0;
};

}  // namespace kvx::cli
