// A file that a dump writes, as users of cp, dd and a debugger's dump expect: what the user names
// is written into, never over.
//
// - A path that names nothing yet becomes a new file, which appears only when complete.
// - An existing regular file with a single name is written beside it and put in its place on
//   commit, keeping its mode, and its owner where the user may set it.
// - Anything else is written in place, in order: a regular file with several names, or in a
//   directory the user cannot write to; a device, a FIFO, a socket; standard output ("-"), and
//   what /dev/stdout, /dev/fd/N and /proc/self/fd/N name, through the descriptor this process has.
//
// Symbolic links are followed: the rules apply to what a link names, and a dangling link gets its
// target created. A file destroyed uncommitted never passes for complete: a new file is not
// created, a replaced one stays as it was, and one written in place holds what reached it, which
// inPlace(), written() and leftBehind() tell the caller, for the failure message.
//
// Owned by its user; one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "bringup/file/FileDescriptor.h"

struct stat;

namespace kvx::bringup {

class ScratchFile;

class OutputFile {
 public:
  /// Opens what `path` names for writing. Throws a usage Error for an empty path, and a file Error
  /// naming the path and the cause when it cannot be written ("cannot create 'out/dump.bin': No
  /// such file or directory"), so that a dump fails before it reaches the target. A FIFO blocks
  /// here until it has a reader.
  explicit OutputFile(std::string path);
  /// Uncommitted, leaves the path as leftBehind() says. Never throws.
  ~OutputFile();

  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  /// Writes `size` bytes where the last write ended (at the start, first). Buffered in blocks;
  /// throws a file Error naming the path and the cause, such as "No space left on device".
  void write(const void* bytes, size_t size);
  /// Writes `size` bytes at `offset`, in any order, as parallel workers' parts arrive. Where the
  /// file is written in place, bytes that arrive ahead of a gap wait in a ScratchFile until it is
  /// filled, so that whatever reads the file gets them in order; each byte comes once, and bytes
  /// given before throw std::invalid_argument. Throws as write() does.
  void writeAt(uint64_t offset, const void* bytes, size_t size);
  /// Puts every byte in the file, on disk, and the file at the path; once committed, the file is
  /// done with. Throws a file Error, after which the path is as leftBehind() says;
  /// std::logic_error when bytes still wait for a gap before them.
  void commit();

  /// The path as the user gave it, as messages name it.
  const std::string& path() const { return m_path; }
  /// Whether the bytes go straight into what the path names, so that a failure leaves it
  /// incomplete rather than as it was.
  bool inPlace() const { return m_way == Way::kInPlace; }
  /// The bytes that reached what the path names in place, in order from its start; 0 for a file
  /// written beside the path.
  uint64_t written() const { return m_written; }
  /// What the path holds while this file of `expected` bytes is uncommitted, for the failure that
  /// stops it: "'/tmp/fifo' is left incomplete: 4096 of 65536 bytes written", "nothing was
  /// written to '/tmp/fifo'", "'dump.bin' is left as it was", "'dump.bin' is not created".
  std::string leftBehind(uint64_t expected) const;

 private:
  enum class Way {
    kCreate,   ///< a new file, unnamed (or hidden) until commit links it at the path
    kReplace,  ///< the new contents beside the old file, renamed over it on commit
    kInPlace,  ///< straight into what the path names, in order
  };

  /// Sets up writing in place, through m_file, in order.
  void startInPlace();
  /// Gives the file beside the path the owner and mode of `old`. 0 or an errno value.
  int keepOwnerAndMode(const struct ::stat& old);
  void flush();
  void deliver(uint64_t offset, const char* bytes, size_t size);
  /// Empties a regular file written in place, the first time only.
  void emptyOnce();
  /// Removes what the file left beside the path, and closes it.
  void discard() noexcept;

  // Constant after construction.
  std::string m_path;
  /// What the path names once symbolic links are followed.
  std::string m_target;
  Way m_way = Way::kInPlace;
  /// A regular file written in place, emptied before its first byte is written.
  bool m_emptiedFirst = false;
  /// A regular file or a disk written in place, flushed to disk on commit.
  bool m_durable = false;

  FileDescriptor m_file;
  /// The name of the file beside the path while it has one: a hidden name, or none.
  std::string m_hidden;
  /// Puts parts in order for a file written in place.
  std::unique_ptr<ScratchFile> m_inOrder;
  /// Bytes not yet delivered, which belong at m_bufferOffset on.
  std::string m_buffer;
  uint64_t m_bufferOffset = 0;
  uint64_t m_written = 0;
  bool m_emptied = false;
  bool m_committed = false;
};

}  // namespace kvx::bringup
