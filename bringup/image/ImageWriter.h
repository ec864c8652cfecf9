// Writes a snapshot of target memory as an image file: raw binary, or Intel HEX or S-record,
// which keep the addresses, so that loading the file puts every byte back where it was read.
// The bytes come in order, in pieces as a dump reads them; the file goes out, in order too, to a
// sink that the caller owns (a file, a FIFO, standard output): nothing here opens a file. A
// writer holds at most one record's bytes between pieces. Single-threaded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "bringup/image/ImageFormat.h"

namespace kvx::bringup {

class ImageWriter {
 public:
  /// Receives the next `count` bytes of the file; it throws to stop the writing.
  using Sink = std::function<void(const void* bytes, size_t count)>;

  /// A writer of the `length` bytes at `address` as `format`, to `sink`. Throws a usage Error,
  /// having written nothing, for ELF, for bytes past the top of the 64-bit address space, and for
  /// Intel HEX or S-record when the range reaches above 4 GiB, where they have no addresses.
  /// Intel HEX gets extended linear address records; S-record, the smallest record type that
  /// holds the highest address (S1, S2 or S3), an S0 header with nothing in it, and a
  /// termination record with start address 0, the format having no way to say there is none.
  static std::unique_ptr<ImageWriter> create(ImageFormat format, uint64_t address, uint64_t length,
                                             Sink sink);

  ImageWriter(const ImageWriter&) = delete;
  ImageWriter& operator=(const ImageWriter&) = delete;
  virtual ~ImageWriter();

  /// The next `count` bytes of the range. More than the range holds is a logic_error.
  void write(const uint8_t* bytes, size_t count);
  /// Ends the file once the whole range is written: an Intel HEX end-of-file record, an S-record
  /// termination record. A file without it is one that load warns may be cut short, so a dump
  /// that failed does not call this. logic_error when bytes of the range are missing.
  void finish();

 protected:
  ImageWriter(uint64_t address, uint64_t length, Sink sink);

  /// Writes `count` bytes (at least one) that go at `address`, each byte once, in order.
  virtual void writeData(uint64_t address, const uint8_t* bytes, size_t count) = 0;
  /// Writes what ends the file.
  virtual void writeEnd() = 0;

  Sink m_sink;

 private:
  uint64_t m_next;
  uint64_t m_left;
};

}  // namespace kvx::bringup
