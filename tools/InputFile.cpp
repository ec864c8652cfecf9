#include "tools/InputFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kvx::cli {

std::runtime_error fileError(const std::string& what, const std::string& path) {
  return std::runtime_error("cannot " + what + " '" + path + "': " + std::strerror(errno));
}

std::vector<uint8_t> readFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    throw fileError("read", path);
  }
  std::vector<uint8_t> data;
  uint8_t buffer[64 * 1024];
  for (;;) {
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got < 0) {
      const int error = errno;
      ::close(fd);
      errno = error;
      throw fileError("read", path);
    }
    if (got == 0) {
      break;
    }
    data.insert(data.end(), buffer, buffer + got);
  }
  ::close(fd);
  return data;
}

}  // namespace kvx::cli
