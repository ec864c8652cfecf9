// Waits bounded by a deadline on the steady clock, as poll() takes them.
#pragma once

#include <chrono>
#include <climits>

namespace kvx::common {

/// The milliseconds left until `deadline`, rounded up so that a poll for them never ends early;
/// 0 once it has passed.
inline int remainingMs(std::chrono::steady_clock::time_point deadline) {
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
  return left <= 0 ? 0 : left >= INT_MAX ? INT_MAX : static_cast<int>(left);
}

}  // namespace kvx::common
