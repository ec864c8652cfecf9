// A file that is written in full or not at all. The bytes go to a temporary file beside the
// target path, which replaces the path only on commit(); destroyed uncommitted (a failed or
// interrupted transfer), it removes the temporary file and leaves whatever was at the path
// before. Every write is checked. Single-threaded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace kvx::cli {

class OutputFile {
 public:
  /// Creates the temporary file beside `path`. Throws std::runtime_error naming `path` when the
  /// directory cannot take it.
  explicit OutputFile(std::string path);
  ~OutputFile();

  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  /// Throws std::runtime_error naming the path and the reason, e.g. a full disk.
  void write(const void* bytes, size_t size);
  /// Writes `size` bytes at `offset`, unbuffered, as parallel workers' parts arrive. Not mixed
  /// with write().
  void writeAt(uint64_t offset, const void* bytes, size_t size);
  /// Makes the bytes written so far the file at the path, on disk.
  void commit();

 private:
  void flush();

  std::string m_path;
  std::string m_temporary;
  int m_fd = -1;
  std::string m_buffer;
};

}  // namespace kvx::cli
