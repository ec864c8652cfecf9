// Reads the data records of an Intel HEX or Motorola S-record file one at a time, through
// libsrecord, so that a file of any size streams. A malformed file becomes a Failure naming the
// file and the line, never an exit from inside the library. Owns its open file. Single-threaded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace kvx::cli {

class RecordReader {
 public:
  enum class Syntax { kIntelHex, kSRecord };

  /// Receives the library's warnings, "line N: ..." (such as ignored garbage lines).
  using Warn = std::function<void(const std::string& warning)>;

  /// Reads `path`, which the caller has found readable: the library retries a failed open as it
  /// closes, and an error then could only end the process. Warnings go to `warn` when it is set.
  RecordReader(const std::string& path, Syntax syntax, Warn warn = nullptr);
  ~RecordReader();

  RecordReader(const RecordReader&) = delete;
  RecordReader& operator=(const RecordReader&) = delete;

  /// The next data record: `count` bytes (at most 255) at `address`, valid until the next call.
  /// False at the end of the file. Throws Failure("cannot read 'PATH' as FORMAT", "line N: ...").
  bool next(uint32_t& address, const uint8_t*& bytes, size_t& count);

  /// "Intel HEX", "S-record".
  static const char* name(Syntax syntax);

 private:
  /// The library's reader and what takes its messages.
  struct State;
  std::unique_ptr<State> m_state;
};

}  // namespace kvx::cli
