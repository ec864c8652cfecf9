// Stand-in for the host framework library: the process-wide list of memory-space names.

#include "vorn/ExtAddress.h"

namespace vorn {

std::vector<std::string> ExtAddress::memorySpaceIds;

}  // namespace vorn
