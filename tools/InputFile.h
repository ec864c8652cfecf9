// Files that kvx-ta reads: an image to load, a script. A read error becomes a message naming the
// file and the reason, where a stream would throw its own or stop silently.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace kvx::cli {

/// "cannot WHAT 'PATH': " and the reason errno gives.
std::runtime_error fileError(const std::string& what, const std::string& path);

/// The whole of the file at `path`. Throws fileError("read", path).
std::vector<uint8_t> readFile(const std::string& path);

}  // namespace kvx::cli
