// One agent endpoint as a debugger host reaches it through the plug-in: a configuration block
// that the manager admits, a client registered with it, and the process that the manager hands
// out. Every access goes through that process, once for each access asked for; nothing here
// calls the agent library itself. A failure is an Error that says what was attempted and why,
// the reason taken from what the failed agent call returned (FailureReasons.h).
//
// Owns the process and the client. Any thread may call any operation, on one instance or
// several: accesses rely on the plug-in's session lock to reach this endpoint. Reservations act
// on whichever agent session is open, so they run under a lock of this library that accesses
// share and reservations hold alone, and no other Target's access switches the session between
// the switch to this endpoint and the reservation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include <boost/shared_ptr.hpp>

#include "bringup/FailureReasons.h"
#include "common/Endpoint.h"

namespace vorn {
class ConfigBlock;
class TaProcessKVX;
class TargetConfig_TaProcessClient;
}  // namespace vorn

namespace kvx::bringup {

class Target {
 public:
  /// Admits a configuration for `endpoint` and obtains its process under `processName`; opens no
  /// session. Throws Error (kConnection) when the plug-in declines.
  Target(const common::Endpoint& endpoint, const std::string& processName);
  /// Unregisters the client. Makes no agent call: the session stays open.
  ~Target();

  Target(const Target&) = delete;
  Target& operator=(const Target&) = delete;

  const common::Endpoint& endpoint() const { return m_endpoint; }

  /// Makes this endpoint's session the open one now, so that an agent that is not there is
  /// reported as such rather than as the failure of whatever access comes first. Throws Error
  /// (kConnection) when the session cannot be opened, saying why. Without it, the first access
  /// opens the session.
  void open();

  // Every operation below throws Error when the agent refuses or is gone, saying why.

  /// One access of `size` bytes (0 to 8) at `address`, bytes in target memory order.
  void read(uint64_t address, uint8_t* bytes, unsigned size);
  void write(uint64_t address, const uint8_t* bytes, unsigned size);
  /// One read of `size` bytes at `address`, then one write of (old & ~clear) | set: the old value
  /// and the new one.
  std::pair<uint64_t, uint64_t> modify(uint64_t address, unsigned size, uint64_t set, uint64_t clear);
  /// One read_mem call of `count` * `unitSize` bytes, as a host makes it: the plug-in moves at
  /// most 8 bytes into `bytes` and warns of a longer request. Returns the bytes moved.
  size_t readOnce(uint64_t address, size_t count, unsigned unitSize, uint8_t* bytes);

  /// A register's value, read once, and its width in bits from the register description (none
  /// for a register the description does not know).
  struct Register {
    uint64_t value;
    std::optional<unsigned> bits;
  };
  Register readRegister(const std::string& name);
  /// Hands the agent the full 64 bits; it refuses a value wider than the register.
  void writeRegister(const std::string& name, uint64_t value);

  /// The address of a new block of `size` bytes.
  uint64_t reserve(uint64_t size);
  void unreserve(uint64_t address);
  /// As unreserve(), but false when the agent says that no reserved block starts at `address`.
  bool tryUnreserve(uint64_t address);
  void unreserveAll();

  /// Makes the next access open a new session with this endpoint, for an agent that was reset
  /// or restarted: the plug-in reopens a session only on a switch between endpoints, so this
  /// switches the shared session away, to no endpoint at all, through the plug-in's own
  /// interface. Safe while other threads use other processes; their next access switches back.
  void reconnect();

 private:
  /// Runs `access`, a call of the process that returns true or throws vorn::Exception, and
  /// turns a failure into Error(`attempted`, why).
  template <typename Access>
  void guarded(const std::string& attempted, const CallContext& context, Access access);
  /// The error for the agent call that failed last on this thread.
  Error agentFailure(const std::string& attempted, const CallContext& context,
                     const std::string& detail) const;
  CallContext context() const;

  common::Endpoint m_endpoint;
  boost::shared_ptr<vorn::ConfigBlock> m_config;
  boost::shared_ptr<vorn::TargetConfig_TaProcessClient> m_client;
  boost::shared_ptr<vorn::TaProcessKVX> m_process;
  /// The memory space that accesses name, as the process announced it.
  std::string m_memorySpace;
};

}  // namespace kvx::bringup
