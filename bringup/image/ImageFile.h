// An image file open for reading, as the reader of each format takes it: a regular file, read at
// any offset as often as asked, or a stream (standard input, a pipe, a device), read once from its
// start. Its first bytes are read when it is opened, to tell its format; a stream hands them out
// again first. Owns its descriptor. Movable, not copyable; single-threaded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kvx::bringup {

class ImageFile {
 public:
  /// Opens `path`; "-" is standard input, read through a descriptor of its own, so that it stays
  /// open after. Reads the first bytes: from a stream, no more than it has to. Throws a file Error
  /// when the file cannot be opened or read.
  static ImageFile open(const std::string& path);

  ImageFile(ImageFile&& other) noexcept;
  ImageFile& operator=(ImageFile&&) = delete;
  ImageFile(const ImageFile&) = delete;
  ImageFile& operator=(const ImageFile&) = delete;
  ~ImageFile();

  /// The file as messages name it: "'PATH'", or "standard input".
  const std::string& name() const { return m_name; }
  bool isStream() const { return m_stream; }
  /// The size of a regular file when it was opened; none for a stream.
  std::optional<uint64_t> size() const;
  /// For a library that reads the file by itself (libelf); regular files only.
  int descriptor() const { return m_fd; }
  /// The first bytes: at least the first four and the first two after any leading blanks, unless
  /// the file is shorter, and for a regular file up to kHeadBytes.
  const std::vector<uint8_t>& head() const { return m_head; }

  /// Up to `count` bytes from `offset` on, fewer only at the end of the file. A stream goes
  /// forward only: `offset` must be the number of bytes read so far, and asking for bytes before
  /// that (a second reading) is a usage Error. Throws a file Error when the file cannot be read.
  size_t read(uint64_t offset, uint8_t* bytes, size_t count);
  /// Exactly `count` bytes of a regular file from `offset` on: a file Error when it has become
  /// shorter since it was opened.
  void readExactly(uint64_t offset, uint8_t* bytes, size_t count);

  static constexpr size_t kHeadBytes = 4096;

 private:
  ImageFile() = default;
  /// The file Error of a failed read, with the reason `error` (an errno value) gives.
  [[noreturn]] void failed(int error) const;
  /// One read(2) at the stream's position, retried when interrupted; 0 at the end.
  size_t readSome(uint8_t* bytes, size_t count);

  int m_fd = -1;
  std::string m_path;
  std::string m_name;
  bool m_stream = false;
  uint64_t m_size = 0;
  std::vector<uint8_t> m_head;
  /// A stream's bytes handed out so far, the head's included.
  uint64_t m_position = 0;
};

}  // namespace kvx::bringup
