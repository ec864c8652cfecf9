#include "common/Programs.h"

#include <limits.h>
#include <unistd.h>

namespace kvx::common {

std::string thisProgram() {
  char path[PATH_MAX];
  const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path);
  return length > 0 && static_cast<size_t>(length) < sizeof path
             ? std::string(path, static_cast<size_t>(length))
             : std::string();
}

std::string besideThisProgram(const std::string& name) {
  const std::string self = thisProgram();
  const size_t slash = self.rfind('/');
  return slash == std::string::npos ? name : self.substr(0, slash + 1) + name;
}

}  // namespace kvx::common
