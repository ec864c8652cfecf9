// Reaches a TCP endpoint by host name or numeric address within a deadline, and says why it
// could not: the name did not resolve, the connection was refused, the time ran out. The agent
// client library opens its sessions with it, and kvx-ta diagnoses an unreachable agent with it.
//
// Name lookups run in libc's resolver threads (getaddrinfo_a), so a resolver that hangs cannot
// hold a caller past its deadline; a lookup given up stays on this dialer's list until no libc
// thread refers to it, and is freed by a later dial. The dialer starts no thread of its own and
// is trivially destructible, so that one may live at namespace scope in a library that a host
// unloads: what is still listed then is leaked, never freed while a libc thread writes to it.
// Not thread-safe: its owner serialises dials.
#pragma once

#include <chrono>

namespace kvx::common {

struct NameLookup;

class Dialer {
 public:
  using Clock = std::chrono::steady_clock;

  enum class Error {
    kNone,
    kUnresolved,  ///< the name does not resolve, or not within the deadline
    kRefused,     ///< every address refused the connection: nothing listens there
    kTimedOut,    ///< no address accepted the connection within the deadline
    kFailed,      ///< another error, such as an unreachable network; `systemError` says which
  };

  struct Result {
    int fd = -1;  ///< a connected non-blocking socket, close-on-exec; -1 on failure
    Error error = Error::kNone;
    int systemError = 0;  ///< errno of the last failed attempt, for kFailed
  };

  constexpr Dialer() = default;

  /// Connects to `host` (a name, an IPv4 or an IPv6 address) and `port`, trying every address the
  /// name has in turn, all before `deadline`.
  Result dial(const char* host, int port, Clock::time_point deadline);

 private:
  /// Lookups given up at their deadline that a libc thread may still be working on.
  NameLookup* m_abandoned = nullptr;
};

}  // namespace kvx::common
