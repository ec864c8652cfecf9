#include "bringup/FailureReasons.h"

#include "bringup/Numbers.h"
#include "bringup/Registers.h"
#include "common/AgentTimeout.h"
#include "platform/agent/AgentStatus.h"

namespace kvx::bringup {
namespace {

using agent::Status;

FailureReason connection(std::string text) { return {Error::Kind::kConnection, std::move(text)}; }
FailureReason target(std::string text) { return {Error::Kind::kTarget, std::move(text)}; }

std::string deadlineMissed() {
  return "no answer within " + std::to_string(common::agentTimeoutMs()) +
         " ms (the agent library's deadline, " + common::kAgentTimeoutVariable + ")";
}

/// Why start_session failed with `status`, or none when the status is not one of its own.
std::optional<std::string> sessionNotOpened(int32_t status, const common::Endpoint& endpoint) {
  switch (static_cast<Status>(status)) {
    case Status::kUnresolved:
      return "the name '" + endpoint.host + "' does not resolve";
    case Status::kConnectionRefused:
      return "connection refused: nothing listens on port " + std::to_string(endpoint.port);
    case Status::kTimeout:
      return deadlineMissed();
    case Status::kCannotConnect:
      return std::string("no connection could be made (is the network reachable?)");
    case Status::kSessionRefused:
      return std::string("the agent refused the session");
    case Status::kBusy:
      return std::string("the agent is busy: another host holds its one session");
    case Status::kVersionMismatch:
      return std::string("the agent speaks another version of the agent protocol");
    case Status::kMalformedReply:
      return std::string("what answered is not a KVX agent");
    case Status::kConnectionLost:
      return std::string("what answered is not a KVX agent: it closed the connection without a word");
    case Status::kInvalidArgument:
      return "the agent library refused the address '" + endpoint.host + "' or the port " +
             std::to_string(endpoint.port);
    default:
      return std::nullopt;
  }
}

FailureReason knownReason(const AgentCall& call, const CallContext& context) {
  const std::string gone = "the agent at " + context.endpoint.text() + " is gone: ";
  if (call.function == AgentFunction::kStartSession) {
    return connection(sessionNotOpened(call.status, context.endpoint)
                          .value_or("start_session failed with status " + std::to_string(call.status)));
  }
  switch (static_cast<Status>(call.status)) {
    case Status::kNoSession: {
      // The session was never opened, or its opening failed: say why, as it was recorded then.
      const SessionAttempt attempt = lastSessionAttempt();
      const bool failedHere = attempt.port == context.endpoint.port &&
                              attempt.address == context.endpoint.host && attempt.status != 0;
      const std::optional<std::string> why =
          failedHere ? sessionNotOpened(attempt.status, context.endpoint) : std::nullopt;
      return connection("no session is open with the agent at " + context.endpoint.text() +
                        (why ? ": it could not be opened: " + *why : std::string()));
    }
    case Status::kConnectionLost:
      return connection(gone + "it closed the connection");
    case Status::kTimeout:
      return connection(gone + deadlineMissed());
    case Status::kMalformedReply:
      return connection(gone + "its reply made no sense, so the connection was closed");
    case Status::kDenied:
      return target("access denied: the agent closes this range to accesses");
    case Status::kOutOfMemory:
      return target("the target is out of memory");
    case Status::kUnknownRegister:
      return target("unknown register: the agent has no register called '" + context.registerName + "'");
    case Status::kValueTooWide: {
      const std::optional<unsigned> bits = registerBits(context.registerName);
      return target("value too wide: " + context.registerName +
                    (bits ? " is a " + std::to_string(*bits) + "-bit register" : " is narrower"));
    }
    case Status::kNoSpace:
      return target("no space for a block that size in the reservation region");
    case Status::kNotReserved:
      return target(hexAddress(context.address) + " is not the start of a reserved block");
    case Status::kArgumentRefused:
      return target("the agent refused the argument");
    case Status::kInvalidArgument:
      return target("the agent library refused the arguments before sending anything");
    case Status::kRefused:
      return target("the agent refused it");
    default:
      return target(std::string(functionName(call.function)) + " failed with status " +
                    std::to_string(call.status));
  }
}

}  // namespace

FailureReason failureReason(const AgentCall& call, const CallContext& context, const AgentLibrary& library) {
  if (library.known) return knownReason(call, context);
  // Another library's status could mean anything: say what happened and no more.
  const std::string text =
      std::string(functionName(call.function)) + " failed with status " + std::to_string(call.status) +
      " (the agent library " +
      (library.path.empty() ? std::string("beside the plug-in") : "'" + library.path + "'") +
      " is not the one this program was built with, so its statuses are not interpreted)";
  return {call.function == AgentFunction::kStartSession ? Error::Kind::kConnection : Error::Kind::kTarget,
          text};
}

bool meansNotReserved(int32_t status, const AgentLibrary& library) {
  return library.known && static_cast<Status>(status) == Status::kNotReserved;
}

}  // namespace kvx::bringup
