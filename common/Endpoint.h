// Where a target agent listens: a host (a name, an IPv4 or an IPv6 address) and a TCP port. A
// plain value, shared by everything that starts or names an agent.
#pragma once

#include <optional>
#include <string>

namespace kvx::common {

struct Endpoint {
  /// As the agent library takes it: an IPv6 address without brackets.
  std::string host;
  int port = 0;

  /// HOST:PORT, with an IPv6 address in brackets.
  std::string text() const;

  /// Reads HOST:PORT, where HOST is a name, an IPv4 address or an IPv6 address in brackets and
  /// PORT is 1 to 65535. None, with the reason in `why`, for anything else.
  static std::optional<Endpoint> parse(const std::string& text, std::string& why);
};

}  // namespace kvx::common
