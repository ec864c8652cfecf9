// Why an agent call failed, in the user's terms, from what the call returned and nothing else:
// no second access, no connection of our own, no knowledge of a wire. The stand-in agent library
// returns a distinct status for each cause, and when the library beside the plug-in is the one
// built with this program (AgentCalls recognises it), the status names the cause. Any other
// library's statuses mean nothing here: the reason then says which call failed with which status,
// and guesses nothing.
#pragma once

#include <cstdint>
#include <string>

#include "bringup/AgentCalls.h"
#include "bringup/Error.h"
#include "common/Endpoint.h"

namespace kvx::bringup {

/// What a reason may name besides the call.
struct CallContext {
  /// The agent the call went to.
  common::Endpoint endpoint;
  /// The register of a register call, the value of a register write.
  std::string registerName;
  uint64_t value = 0;
  /// The address of a reservation release.
  uint64_t address = 0;
};

struct FailureReason {
  Error::Kind kind;
  std::string text;
};

/// The reason that `call`, which returned a status other than 0, failed. `library` says whether
/// its statuses are known.
FailureReason failureReason(const AgentCall& call, const CallContext& context, const AgentLibrary& library);

/// Whether `status`, from ddr_unreserve, means that no reserved block starts at the address.
bool meansNotReserved(int32_t status, const AgentLibrary& library);

}  // namespace kvx::bringup
