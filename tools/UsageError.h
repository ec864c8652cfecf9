// The error of a command that does not say what to do: a malformed number, a size out of range,
// an unknown command, a missing or surplus argument. It is raised before the target is touched
// by that command, and kvx-ta exits with status 2 for it (1 is for failures on the target).
#pragma once

#include <stdexcept>

namespace kvx::cli {

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace kvx::cli
