// A target address qualified by the name of its memory space. A plain value; the static list of
// memory-space names is process-wide and is replaced by the plug-in that serves the target.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vorn/Visibility.h"

namespace vorn {

struct VORN_API ExtAddress {
  std::string memorySpace;
  uint64_t address = 0;

  /// The memory spaces the loaded target-access plug-in offers. The plug-in replaces the list;
  /// the host framework does not synchronise it, so the plug-in says when it may be read.
  static std::vector<std::string> memorySpaceIds;
};

}  // namespace vorn
