#include "common/Endpoint.h"

#include <cstdlib>

namespace kvx::common {

std::string Endpoint::text() const {
  const bool ipv6 = host.find(':') != std::string::npos;
  return (ipv6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

std::optional<Endpoint> Endpoint::parse(const std::string& text, std::string& why) {
  std::string host;
  std::string port;
  if (!text.empty() && text.front() == '[') {
    const size_t close = text.find(']');
    if (close == std::string::npos || close + 1 >= text.size() || text[close + 1] != ':') {
      why = "expected [IPv6]:PORT";
      return std::nullopt;
    }
    host = text.substr(1, close - 1);
    port = text.substr(close + 2);
  } else {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
      why = "expected HOST:PORT";
      return std::nullopt;
    }
    host = text.substr(0, colon);
    port = text.substr(colon + 1);
    if (host.find(':') != std::string::npos) {
      why = "put an IPv6 address in brackets: [ADDRESS]:PORT";
      return std::nullopt;
    }
  }
  if (host.empty()) {
    why = "no host";
    return std::nullopt;
  }
  // Decimal digits only: no sign, no blanks, no leading zero to read as octal.
  const bool digits = !port.empty() && port.size() <= 5 &&
                      port.find_first_not_of("0123456789") == std::string::npos && port.front() != '0';
  const long number = digits ? std::strtol(port.c_str(), nullptr, 10) : 0;
  if (number < 1 || number > 65535) {
    why = "the port must be 1 to 65535";
    return std::nullopt;
  }
  return Endpoint{host, static_cast<int>(number)};
}

}  // namespace kvx::common
