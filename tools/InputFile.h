// Files that kvx-ta reads and writes: an image to load, a script, a dump. An error becomes a
// message naming the file and the reason, where a stream would throw its own or stop silently.
#pragma once

#include <stdexcept>
#include <string>

namespace kvx::cli {

/// "cannot WHAT 'PATH': " and the reason errno gives.
std::runtime_error fileError(const std::string& what, const std::string& path);

}  // namespace kvx::cli
