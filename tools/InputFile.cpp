#include "tools/InputFile.h"

#include <cerrno>
#include <cstring>

namespace kvx::cli {

std::runtime_error fileError(const std::string& what, const std::string& path) {
  return std::runtime_error("cannot " + what + " '" + path + "': " + std::strerror(errno));
}

}  // namespace kvx::cli
