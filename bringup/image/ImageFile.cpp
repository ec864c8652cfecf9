#include "bringup/image/ImageFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "bringup/Error.h"

namespace kvx::bringup {
namespace {

const char kStandardInput[] = "-";

/// Whether `head` shows enough of a stream to tell its format: the four bytes of a magic number,
/// and the first character that is not blank with the one after it.
bool tellsFormat(const std::vector<uint8_t>& head) {
  if (head.size() < 4) return false;
  const auto first = std::find_if(head.begin(), head.end(), [](uint8_t c) { return std::isspace(c) == 0; });
  return first != head.end() && first + 1 != head.end();
}

}  // namespace

ImageFile ImageFile::open(const std::string& path) {
  ImageFile file;
  file.m_path = path;
  file.m_name = path == kStandardInput ? "standard input" : "'" + path + "'";
  file.m_fd = path == kStandardInput ? ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                                     : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat status {};
  if (file.m_fd < 0 || ::fstat(file.m_fd, &status) != 0) file.failed(errno);
  if (S_ISDIR(status.st_mode)) file.failed(EISDIR);
  file.m_stream = !S_ISREG(status.st_mode);
  if (file.m_stream) {
    // Only what tells the format: a stream may be slow to come, and what it sends is loaded as
    // it comes.
    uint8_t buffer[kHeadBytes];
    while (file.m_head.size() < kHeadBytes && !tellsFormat(file.m_head)) {
      const size_t count = file.readSome(buffer, kHeadBytes - file.m_head.size());
      if (count == 0) break;
      file.m_head.insert(file.m_head.end(), buffer, buffer + count);
    }
  } else {
    file.m_size = static_cast<uint64_t>(status.st_size);
    file.m_head.resize(static_cast<size_t>(std::min<uint64_t>(kHeadBytes, file.m_size)));
    file.m_head.resize(file.read(0, file.m_head.data(), file.m_head.size()));
  }
  return file;
}

ImageFile::ImageFile(ImageFile&& other) noexcept
    : m_fd(std::exchange(other.m_fd, -1)),
      m_path(std::move(other.m_path)),
      m_name(std::move(other.m_name)),
      m_stream(other.m_stream),
      m_size(other.m_size),
      m_head(std::move(other.m_head)),
      m_position(other.m_position) {}

ImageFile::~ImageFile() {
  if (m_fd >= 0) ::close(m_fd);
}

std::optional<uint64_t> ImageFile::size() const {
  if (m_stream) return std::nullopt;
  return m_size;
}

size_t ImageFile::read(uint64_t offset, uint8_t* bytes, size_t count) {
  size_t done = 0;
  if (!m_stream) {
    while (done < count) {
      const ssize_t got = ::pread(m_fd, bytes + done, count - done, static_cast<off_t>(offset + done));
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) failed(errno);
      if (got == 0) break;
      done += static_cast<size_t>(got);
    }
    return done;
  }
  if (offset < m_position) {
    throw usageError(m_name + " is a pipe or a device: it cannot be read twice");
  }
  if (offset > m_position) throw std::logic_error("a stream is read in order, with no gap");
  if (m_position < m_head.size()) {
    done = std::min(count, static_cast<size_t>(m_head.size() - m_position));
    std::memcpy(bytes, m_head.data() + m_position, done);
    m_position += done;
  }
  while (done < count) {
    const size_t got = readSome(bytes + done, count - done);
    if (got == 0) break;
    done += got;
    m_position += got;
  }
  return done;
}

void ImageFile::readExactly(uint64_t offset, uint8_t* bytes, size_t count) {
  if (read(offset, bytes, count) != count) {
    throw Error(Error::Kind::kFile, "cannot read " + m_name, "it is shorter than when it was opened");
  }
}

size_t ImageFile::readSome(uint8_t* bytes, size_t count) {
  for (;;) {
    const ssize_t got = ::read(m_fd, bytes, count);
    if (got >= 0) return static_cast<size_t>(got);
    if (errno != EINTR) failed(errno);
  }
}

void ImageFile::failed(int error) const {
  if (m_path == kStandardInput) {
    throw Error(Error::Kind::kFile, "cannot read standard input", std::strerror(error));
  }
  throw fileError("read", m_path, error);
}

}  // namespace kvx::bringup
