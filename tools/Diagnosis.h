// Why kvx-ta could not reach an agent, or why the agent refused a request. The plug-in and the
// agent library report only that something failed; kvx-ta asks the agent itself, over a
// connection of its own, and words the answer in the user's terms. It never repeats an access
// that could change the target: a refused write is diagnosed by reading the same bytes, a refused
// register write by reading the register, and a refused reservation not at all.
//
// Each answer is a reason to follow "WHAT WAS ATTEMPTED: ". Single-threaded.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "common/Dialer.h"
#include "common/Endpoint.h"

namespace kvx::test {
class WireConnection;
}  // namespace kvx::test

namespace kvx::cli {

class Diagnosis {
 public:
  /// Asks the agent at `endpoint`, every exchange bounded by the agent library's deadline.
  explicit Diagnosis(common::Endpoint endpoint);

  /// Why no session could be opened with the agent.
  std::string noSession();
  /// Why a session that was open is gone, after a call that took `elapsedMs`.
  std::string lostSession(unsigned elapsedMs);
  /// Why the agent refused to read (or write) `size` bytes at `address`.
  std::string memoryRefused(bool write, uint64_t address, unsigned size);
  /// Why the agent refused to read (or write `value` to) the register `name`.
  std::string registerRefused(bool write, const std::string& name, uint64_t value);

  /// The deadline, as TA_AGENT_TIMEOUT_MS sets it for the agent library, in milliseconds.
  static unsigned timeoutMs();
  /// That no answer came within the deadline.
  static std::string deadlineMissed();

 private:
  /// A handshaken connection of kvx-ta's own, or null with the reason in `why`.
  std::unique_ptr<test::WireConnection> open(std::string& why);

  common::Endpoint m_endpoint;
  common::Dialer m_dialer;
};

}  // namespace kvx::cli
