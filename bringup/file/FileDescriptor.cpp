#include "bringup/file/FileDescriptor.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <random>
#include <utility>

namespace kvx::bringup {
namespace {

/// Tries of a random hidden name before giving up on a directory full of them.
constexpr int kNameTries = 100;
/// Random letters and digits in a hidden name, as mkstemp has them.
constexpr int kRandomLetters = 6;

/// Calls `move(at, left)`, a read or write of the `left` bytes from `at` on, until all `size`
/// bytes have moved. A call that was interrupted is made again; one that found a non-blocking
/// descriptor not ready, once it is `ready` (POLLIN or POLLOUT). 0, or an errno value: `ended` for
/// a call that moves nothing.
template <typename Move>
int moveAll(int fd, size_t size, short ready, int ended, const Move& move) {
  for (size_t at = 0; at < size;) {
    const ssize_t n = move(at, size - at);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      pollfd descriptor{fd, ready, 0};
      while (::poll(&descriptor, 1, -1) < 0 && errno == EINTR) {
      }
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno;
    if (n == 0) return ended;
    at += static_cast<size_t>(n);
  }
  return 0;
}

}  // namespace

FileDescriptor::~FileDescriptor() { close(); }

FileDescriptor::FileDescriptor(FileDescriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
  if (this != &other) {
    close();
    m_fd = std::exchange(other.m_fd, -1);
  }
  return *this;
}

int FileDescriptor::close() {
  if (m_fd < 0) return 0;
  // Linux frees the descriptor even when close fails, so it is never closed twice; EINTR is not a
  // failure to report.
  const int closed = ::close(std::exchange(m_fd, -1));
  return closed == 0 || errno == EINTR ? 0 : errno;
}

int FileDescriptor::write(const void* bytes, size_t size, uint64_t& done) const {
  const auto* data = static_cast<const uint8_t*>(bytes);
  return moveAll(m_fd, size, POLLOUT, ENOSPC, [&](size_t at, size_t left) {
    const ssize_t n = ::write(m_fd, data + at, left);
    if (n > 0) done += static_cast<uint64_t>(n);
    return n;
  });
}

int FileDescriptor::writeAt(uint64_t offset, const void* bytes, size_t size) const {
  const auto* data = static_cast<const uint8_t*>(bytes);
  return moveAll(m_fd, size, POLLOUT, ENOSPC, [&](size_t at, size_t left) {
    return ::pwrite(m_fd, data + at, left, static_cast<off_t>(offset + at));
  });
}

int FileDescriptor::readAt(uint64_t offset, void* bytes, size_t size) const {
  auto* data = static_cast<uint8_t*>(bytes);
  return moveAll(m_fd, size, POLLIN, EIO, [&](size_t at, size_t left) {
    return ::pread(m_fd, data + at, left, static_cast<off_t>(offset + at));
  });
}

int openTemporary(const std::string& directory, const std::string& name, mode_t mode, FileDescriptor& file,
                  std::string& hidden) {
  hidden.clear();
  // An unnamed file can be given a name only through /proc; without it, the hidden file it is.
  if (::access("/proc/self/fd", X_OK) == 0) {
    file = FileDescriptor(::open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, mode));
    if (file) return 0;
    // EOPNOTSUPP: this file system has no unnamed files; EISDIR: a kernel that knows no O_TMPFILE
    // took it for a directory to open.
    if (errno != EOPNOTSUPP && errno != EISDIR) return errno;
  }
  return makeHidden(
      directory, name,
      [&](const std::string& path) {
        file = FileDescriptor(::open(path.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, mode));
        return file ? 0 : errno;
      },
      hidden);
}

int makeHidden(const std::string& directory, const std::string& name,
               const std::function<int(const std::string& path)>& make, std::string& hidden) {
  static constexpr char kLetters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  thread_local std::mt19937_64 random{std::random_device{}()};
  std::uniform_int_distribution<size_t> letter(0, sizeof kLetters - 2);
  for (int tries = 0; tries < kNameTries; ++tries) {
    std::string path = directory + "/." + name + ".partial-";
    for (int i = 0; i < kRandomLetters; ++i) path += kLetters[letter(random)];
    if (const int error = make(path); error != EEXIST) {
      if (error == 0) hidden = std::move(path);
      return error;
    }
  }
  return EEXIST;
}

}  // namespace kvx::bringup
