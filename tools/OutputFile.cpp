#include "tools/OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "bringup/Error.h"
#include <cstdio>
#include <vector>

#include <cerrno>

#include "bringup/Error.h"

namespace kvx::cli {
namespace {

/// Writes go out in blocks of this size.
constexpr size_t kBlock = 64 * 1024;

}  // namespace

OutputFile::OutputFile(std::string path) : m_path(std::move(path)) {
  // Beside the path, so that rename() replaces it in one step on the same file system; hidden,
  // so that nobody takes it for the finished file.
  const size_t slash = m_path.rfind('/');
  const std::string directory = slash == std::string::npos ? "" : m_path.substr(0, slash + 1);
  const std::string name = slash == std::string::npos ? m_path : m_path.substr(slash + 1);
  std::vector<char> pattern(directory.begin(), directory.end());
  const std::string suffix = "." + name + ".partial-XXXXXX";
  pattern.insert(pattern.end(), suffix.begin(), suffix.end());
  pattern.push_back('\0');
  m_fd = ::mkostemp(pattern.data(), O_CLOEXEC);
  if (m_fd < 0) throw bringup::fileError("write", m_path, errno);
  m_temporary = pattern.data();
  // As a new file would have it: the temporary file is created 0600.
  const mode_t mask = ::umask(0);
  ::umask(mask);
  ::fchmod(m_fd, 0666 & ~mask);
}

OutputFile::~OutputFile() {
  if (m_fd >= 0) {
    ::close(m_fd);
    ::unlink(m_temporary.c_str());
  }
}

void OutputFile::write(const void* bytes, size_t size) {
  m_buffer.append(static_cast<const char*>(bytes), size);
  if (m_buffer.size() >= kBlock) flush();
}

void OutputFile::writeAt(uint64_t offset, const void* bytes, size_t size) {
  const auto* data = static_cast<const uint8_t*>(bytes);
  for (size_t done = 0; done < size;) {
    const ssize_t n = ::pwrite(m_fd, data + done, size - done, static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw bringup::fileError("write", m_path, errno);
    done += static_cast<size_t>(n);
  }
}

void OutputFile::flush() {
  for (size_t done = 0; done < m_buffer.size();) {
    const ssize_t n = ::write(m_fd, m_buffer.data() + done, m_buffer.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw bringup::fileError("write", m_path, errno);
    done += static_cast<size_t>(n);
  }
  m_buffer.clear();
}

void OutputFile::commit() {
  flush();
  if (::fsync(m_fd) != 0 || ::close(m_fd) != 0) {
    m_fd = -1;
    ::unlink(m_temporary.c_str());
    throw bringup::fileError("write", m_path, errno);
  }
  m_fd = -1;
  if (std::rename(m_temporary.c_str(), m_path.c_str()) != 0) {
    const int error = errno;
    ::unlink(m_temporary.c_str());
    errno = error;
    throw bringup::fileError("write", m_path, errno);
  }
}

}  // namespace kvx::cli
