// Stand-in for the host framework library: identifiers for plug-in objects.

#include "vorn/Plugin.h"

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

namespace vorn {

std::string Plugin::new_uuid() {
  // One generator per thread: boost::uuids::random_generator is not thread-safe, and seeding
  // one per call would cost a read of the system's entropy source every time.
  thread_local boost::uuids::random_generator generator;
  return boost::uuids::to_string(generator());
}

}  // namespace vorn
