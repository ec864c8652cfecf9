#include "common/AgentTimeout.h"

#include <cstdlib>

namespace kvx::common {

std::optional<unsigned> parseAgentTimeoutMs(const std::string& text) {
  if (text.empty() || text.size() > 10) return std::nullopt;
  unsigned long value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + static_cast<unsigned long>(c - '0');
  }
  if (value == 0 || value > kMaxAgentTimeoutMs) return std::nullopt;
  return static_cast<unsigned>(value);
}

unsigned agentTimeoutMs() {
  const char* text = std::getenv(kAgentTimeoutVariable);
  return text != nullptr ? parseAgentTimeoutMs(text).value_or(kDefaultAgentTimeoutMs)
                         : kDefaultAgentTimeoutMs;
}

}  // namespace kvx::common
