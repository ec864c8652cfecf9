// The deadline of each call into the agent library, as TA_AGENT_TIMEOUT_MS sets it: the one
// definition of the variable, its default and its bounds, for the library that obeys it and the
// programs that set it or quote it in a message.
#pragma once

#include <optional>
#include <string>

namespace kvx::common {

/// The environment variable that holds the deadline, in milliseconds.
constexpr const char* kAgentTimeoutVariable = "TA_AGENT_TIMEOUT_MS";
constexpr unsigned kDefaultAgentTimeoutMs = 5000;
/// An hour: anything longer is taken for a typo.
constexpr unsigned kMaxAgentTimeoutMs = 3600u * 1000;

/// `text` as a deadline: decimal digits for 1 to kMaxAgentTimeoutMs, nothing else.
std::optional<unsigned> parseAgentTimeoutMs(const std::string& text);

/// The deadline in effect: the variable's when it holds a valid one, else the default. Read anew
/// on every call.
unsigned agentTimeoutMs();

}  // namespace kvx::common
