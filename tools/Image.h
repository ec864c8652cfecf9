// A memory image in a file, as load and verify read it: raw binary, Intel HEX, Motorola
// S-record or ELF. It hands out its bytes in file order, in pieces of at most kPieceBytes with
// the address each belongs at, so that memory stays flat whatever the size of the file. Raw
// binary may come from a pipe or a device, read once as a stream; the other formats are read
// from regular files, as often as asked. Owns the open file. Single-threaded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kvx::cli {

class Image {
 public:
  enum class Format { kRaw, kIntelHex, kSRecord, kElf };

  /// Receives `count` bytes that go at `address`; they are valid until it returns.
  using Visitor = std::function<void(uint64_t address, const uint8_t* bytes, size_t count)>;
  /// Receives a warning about the file, such as "line 3: warning: ignoring garbage lines".
  using Warn = std::function<void(const std::string& warning)>;

  /// The most bytes handed out at once, and about all the memory an image takes.
  static constexpr size_t kPieceBytes = 64 * 1024;

  /// Opens `path` and finds its format from its first bytes, unless `format` names it. Raw
  /// binary goes to `address`, which it needs; in the other formats `address`, when given, is
  /// added to every address the file holds. A HEX or S-record file is read through once here, to
  /// check it and count its bytes, with its warnings to `warn`. Throws runtime_error when the
  /// file cannot be read, Failure when it is malformed, UsageError for raw binary without an
  /// address, for a format other than raw from a pipe or a device, and for bytes that would
  /// go past the top of the 64-bit address space.
  Image(std::string path, std::optional<Format> format, std::optional<uint64_t> address, const Warn& warn);

  Image(const Image&) = delete;
  Image& operator=(const Image&) = delete;

  Format format() const { return m_format; }
  /// The number of bytes to load; empty for a stream, whose size shows only at its end.
  std::optional<uint64_t> size() const { return m_size; }
  /// Whether visit() may run again: not for a stream.
  bool rereadable() const { return !m_stream; }

  /// Hands every byte to `visitor`, in file order. Throws as the constructor does; for a stream,
  /// UsageError only once a piece would pass the top of the address space, with the pieces
  /// before it already handed out.
  void visit(const Visitor& visitor);

  /// The format called "raw", "ihex", "srec" or "elf"; empty for any other name.
  static std::optional<Format> parseFormat(const std::string& name);
  /// "raw binary", "Intel HEX", "S-record", "ELF".
  static const char* describe(Format format);

 private:
  /// Bytes of the file that go to target memory as they are: all of a raw file, an ELF segment.
  struct Segment {
    uint64_t address;
    uint64_t fileOffset;
    uint64_t length;
  };

  void readElfSegments();
  void visitSegments(const Visitor& visitor);
  void visitStream(const Visitor& visitor);
  void visitRecords(const Visitor& visitor, const Warn& warn);
  /// Where the `length` bytes that the file puts at `fileAddress` go; throws UsageError when
  /// they would pass the top of the 64-bit address space.
  uint64_t place(uint64_t fileAddress, uint64_t length) const;

  /// The open file, closed however construction ends.
  struct Descriptor {
    int fd = -1;
    ~Descriptor();
  };

  std::string m_path;
  Descriptor m_file;
  Format m_format = Format::kRaw;
  /// Where raw binary starts, or what is added to the addresses in the file.
  uint64_t m_offset = 0;
  bool m_stream = false;
  std::optional<uint64_t> m_size;
  std::vector<Segment> m_segments;
  /// One piece; a stream's first piece, read to find the format, waits here for visit().
  std::vector<uint8_t> m_buffer;
  size_t m_peeked = 0;
  bool m_streamRead = false;
};

}  // namespace kvx::cli
