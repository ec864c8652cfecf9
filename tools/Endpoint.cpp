#include "tools/Endpoint.h"

#include "tools/Numbers.h"
#include "tools/UsageError.h"

namespace kvx::cli {
namespace {

constexpr uint64_t kMaxPort = 65535;

UsageError badEndpoint(const std::string& text, const std::string& why) {
  return UsageError("invalid server '" + text + "' (" + why + ")");
}

}  // namespace

std::string Endpoint::text() const {
  const bool ipv6 = host.find(':') != std::string::npos;
  return (ipv6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

Endpoint Endpoint::parse(const std::string& text) {
  std::string host;
  std::string port;
  if (!text.empty() && text.front() == '[') {
    const size_t close = text.find(']');
    if (close == std::string::npos || close + 1 >= text.size() || text[close + 1] != ':') {
      throw badEndpoint(text, "expected [IPv6]:PORT");
    }
    host = text.substr(1, close - 1);
    port = text.substr(close + 2);
  } else {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
      throw badEndpoint(text, "expected HOST:PORT");
    }
    host = text.substr(0, colon);
    port = text.substr(colon + 1);
    if (host.find(':') != std::string::npos) {
      throw badEndpoint(text, "put an IPv6 address in brackets: [ADDRESS]:PORT");
    }
  }
  if (host.empty()) {
    throw badEndpoint(text, "no host");
  }
  uint64_t number = 0;
  if (!parseUnsigned(port, number) || number == 0 || number > kMaxPort) {
    throw badEndpoint(text, "the port must be 1 to 65535");
  }
  return Endpoint{host, static_cast<int>(number)};
}

}  // namespace kvx::cli
