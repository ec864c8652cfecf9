// Services that the host framework offers to every plug-in.
#pragma once

#include <string>

#include "vorn/Visibility.h"

namespace vorn {

class VORN_API Plugin {
 public:
  /// A new random (version 4) UUID as 36 characters of text, different on every call.
  /// Safe to call from any thread.
  static std::string new_uuid();
};

}  // namespace vorn
