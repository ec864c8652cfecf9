// Where a target agent listens: a host (name, IPv4 or IPv6 address) and a TCP port. A plain value.
#pragma once

#include <string>

namespace kvx::cli {

struct Endpoint {
  /// As the agent library takes it: an IPv6 address without brackets.
  std::string host;
  int port = 0;

  /// HOST:PORT, with an IPv6 address in brackets.
  std::string text() const;

  /// Parses HOST:PORT, where HOST is a name, an IPv4 address or an IPv6 address in brackets and
  /// PORT is 1 to 65535. Throws UsageError naming `text` otherwise.
  static Endpoint parse(const std::string& text);
};

}  // namespace kvx::cli
