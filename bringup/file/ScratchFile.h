// Puts back in order the parts of a byte stream that arrive in any order, such as the parts that
// parallel workers read, for a consumer that takes bytes only in order: a FIFO, standard output, a
// hex dump. The bytes that continue the stream go straight on to the consumer; those that arrive
// ahead of a gap wait in a scratch file, which has no name (nothing is left behind, whatever
// happens to the process) and is made only when a part first has to wait. As soon as the gap is
// filled, they follow. Owned by its user; single-threaded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "bringup/file/FileDescriptor.h"

namespace kvx::bringup {

class ScratchFile {
 public:
  /// Receives the stream in order from its first byte, each byte once.
  using Sink = std::function<void(const uint8_t* bytes, size_t size)>;

  /// The scratch file, if one is needed, goes in `directory`: by default $TMPDIR, or /tmp.
  explicit ScratchFile(Sink sink, std::string directory = "");

  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;

  /// The `size` bytes at `offset` of the stream. Hands them, and any waiting bytes they let
  /// through, to the sink before it returns when they continue what the sink has; keeps them
  /// otherwise. Each byte is written once: std::invalid_argument for bytes given before. Throws a
  /// file Error when the scratch file cannot be made or used, and whatever the sink throws; after
  /// either, the stream cannot go on.
  void writeAt(uint64_t offset, const void* bytes, size_t size);

  /// The bytes handed to the sink, all those from the start of the stream up to here.
  uint64_t delivered() const { return m_delivered; }
  /// Whether bytes wait for a gap before them to be filled.
  bool waiting() const { return !m_waiting.empty(); }

 private:
  void keep(uint64_t offset, const void* bytes, size_t size);
  void deliverWaiting();
  /// "cannot WHAT a scratch file in 'DIRECTORY'" and the cause.
  [[noreturn]] void fail(const char* what, int error) const;

  Sink m_sink;
  std::string m_directory;
  /// Made at the first part that waits. Bytes keep their offset in the stream in it.
  FileDescriptor m_file;
  /// The runs of bytes that wait in the file: start to end. Runs neither overlap nor touch, and all
  /// lie beyond m_delivered.
  std::map<uint64_t, uint64_t> m_waiting;
  uint64_t m_delivered = 0;
  /// Carries waiting bytes from the file to the sink.
  std::vector<uint8_t> m_carry;
};

}  // namespace kvx::bringup
