// A memory image in a file, as load and verify read it: raw binary, Intel HEX, S-record or ELF,
// each format a class behind this interface, found by one factory from the file's first bytes.
// An image hands out its bytes in file order, in pieces of at most kPieceBytes with the address
// each goes to, so that memory stays flat whatever the size of the file. A regular file is
// checked through when it is opened, before anything is written, and may be visited again; a
// stream (standard input, a pipe, a device) is read once, by the one visit, and checked as it
// comes. An image owns its open file. Single-threaded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "bringup/image/ImageFormat.h"

namespace kvx::bringup {

/// How to read an image file, as the user asked.
struct ImageOptions {
  /// The format; none: found from the content.
  std::optional<ImageFormat> format;
  /// Raw binary: where it goes, which it needs. Other formats: an offset added to every address
  /// the file holds (and to its entry point).
  std::optional<uint64_t> address;
  /// ELF: load each segment at its virtual address, p_vaddr, instead of its physical one, p_paddr.
  bool virtualAddresses = false;
  /// 1, 2, 4 or 8: the image is written in accesses of exactly this size, so every record (a HEX
  /// or S-record line, an ELF segment, a raw file's range) must start and end on a multiple of
  /// it. 0: no such rule.
  unsigned width = 0;
};

class Image {
 public:
  /// Receives `count` bytes that go at `address`; they are valid until it returns.
  using Visitor = std::function<void(uint64_t address, const uint8_t* bytes, size_t count)>;
  /// Receives a warning about a file that still loads: "line 9: warning: ...".
  using Warn = std::function<void(const std::string& warning)>;

  /// The most bytes handed out at once, and about all the memory an image takes.
  static constexpr size_t kPieceBytes = 64 * 1024;

  /// Opens `path` ("-": standard input) as `options` say. A regular file is checked through here,
  /// with its warnings to `warn`; a stream's warnings go to `warn` as visit() comes to them, so
  /// `warn` is kept. Throws Error:
  /// - file: the file cannot be read, is malformed, or cannot be loaded as it stands (records that
  ///   overlap or wrap around, an ELF file with nothing to load);
  /// - usage: raw binary without an address, ELF from a stream, options.format naming a format
  ///   the content is not (raw aside: anything may be loaded as raw binary), a width other than
  ///   0, 1, 2, 4 or 8, a record that the width does not fit, bytes that would go past the top
  ///   of the 64-bit address space. From a stream, the last two only as visit() reaches them.
  static std::unique_ptr<Image> open(const std::string& path, const ImageOptions& options, const Warn& warn);

  Image(const Image&) = delete;
  Image& operator=(const Image&) = delete;
  virtual ~Image();

  virtual ImageFormat format() const = 0;
  /// The number of bytes to load; none for a stream, whose size shows only at its end.
  virtual std::optional<uint64_t> size() const = 0;
  /// Whether visit() may run more than once: not for a stream.
  virtual bool rereadable() const = 0;
  /// Where the image says execution starts (HEX record 03 or 05, S-record S7 to S9, ELF e_entry),
  /// moved by the offset as every address is; none when it does not say. A stream's is known
  /// only once visit() has read it through.
  virtual std::optional<uint64_t> entryPoint() const = 0;
  /// Hands every byte to `visitor`, in file order, in pieces of at most kPieceBytes; never two
  /// pieces for the same address. Throws as open() does; a stream, with the pieces before the
  /// fault already handed out, and a usage Error when visited a second time.
  virtual void visit(const Visitor& visitor) = 0;

 protected:
  Image() = default;
};

}  // namespace kvx::bringup
