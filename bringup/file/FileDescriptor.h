// An open file descriptor, closed when its owner is done with it, and the loops that move a whole
// buffer through one: the system calls may take less than asked, be interrupted by a signal, or
// find a non-blocking descriptor full. Failures come back as errno values, so that each caller
// names the file as its user knows it. A value that owns its descriptor: movable, not copyable;
// single-threaded.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace kvx::bringup {

class FileDescriptor {
 public:
  FileDescriptor() = default;
  /// Takes ownership of `fd` (none when negative).
  explicit FileDescriptor(int fd) : m_fd(fd) {}
  ~FileDescriptor();

  FileDescriptor(FileDescriptor&& other) noexcept;
  FileDescriptor& operator=(FileDescriptor&& other) noexcept;
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;

  int get() const { return m_fd; }
  explicit operator bool() const { return m_fd >= 0; }

  /// Closes it now. 0, or the errno value of a failed close: a file system may report a delayed
  /// write error only here.
  int close();

  /// Writes all `size` bytes at the descriptor's position. `done` grows by every byte taken, also
  /// when the write fails part way. 0 or an errno value; ENOSPC when the file takes nothing more.
  int write(const void* bytes, size_t size, uint64_t& done) const;
  /// Writes all `size` bytes at `offset`. 0 or an errno value.
  int writeAt(uint64_t offset, const void* bytes, size_t size) const;
  /// Reads exactly `size` bytes at `offset`. 0 or an errno value; EIO when the file ends before.
  int readAt(uint64_t offset, void* bytes, size_t size) const;

 private:
  int m_fd = -1;
};

/// Opens a new, empty file for reading and writing in `directory`, created with `mode` (less the
/// umask). Where the file system allows, the file has no name at all until someone links it
/// (O_TMPFILE; it is then reachable through "/proc/self/fd/N"), so that nothing is left behind
/// whatever happens to the process; `hidden` is then empty. Elsewhere it is a hidden file beside
/// the others, ".NAME.partial-XXXXXX", whose path comes back in `hidden`, for the caller to rename
/// or remove. 0 or an errno value.
int openTemporary(const std::string& directory, const std::string& name, mode_t mode, FileDescriptor& file,
                  std::string& hidden);

/// Makes a hidden file in `directory`, ".NAME.partial-XXXXXX" with six random letters and
/// digits, by `make(path)`, which creates that path exclusively and returns 0 or an errno value;
/// other names are tried while it returns EEXIST. The path made comes back in `hidden`. 0 or an
/// errno value.
int makeHidden(const std::string& directory, const std::string& name,
               const std::function<int(const std::string& path)>& make, std::string& hidden);

}  // namespace kvx::bringup
