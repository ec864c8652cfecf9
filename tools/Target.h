// One agent endpoint as a debugger host reaches it through the plug-in: a configuration block the
// manager admits, a client registered with it, and the process the manager hands out. Every
// access goes through that process; nothing here calls the agent library directly.
//
// Owns the process and the client. Single-threaded: kvx-ta makes one access at a time.
#pragma once

#include <cstdint>
#include <string>

#include <boost/shared_ptr.hpp>

#include "common/Endpoint.h"
#include "tools/Diagnosis.h"

namespace vorn {
class ConfigBlock;
class TaProcessKVX;
class TargetConfig_TaProcessClient;
}  // namespace vorn

namespace kvx::cli {

class Target {
 public:
  /// Admits a configuration for `endpoint`, obtains its process and opens its agent session.
  /// Throws Failure, with the reason, when the plug-in declines or no session can be opened.
  explicit Target(const common::Endpoint& endpoint);
  /// Unregisters the client. Makes no agent call: the session closes with the program.
  ~Target();

  Target(const Target&) = delete;
  Target& operator=(const Target&) = delete;

  /// The configuration a host hands the plug-in for an agent at `endpoint`: TaType "KVX",
  /// ServerAddress and ServerPort.
  static boost::shared_ptr<vorn::ConfigBlock> configFor(const common::Endpoint& endpoint);

  // Every operation below throws Failure when the agent refuses or is gone, saying why.

  /// One access of `size` bytes (1 to 8) at `address`, bytes in target memory order, in the
  /// memory space the process announces.
  void read(uint64_t address, uint8_t* bytes, unsigned size);
  void write(uint64_t address, const uint8_t* bytes, unsigned size);

  /// A register's value and its width in bytes (1 to 8).
  struct Register {
    uint64_t value;
    unsigned width;
  };
  /// Learns the width from which bytes the agent library stores: two reads.
  Register readRegister(const std::string& name);
  void writeRegister(const std::string& name, uint64_t value);

  /// The address of a new block of `size` bytes.
  uint64_t reserve(uint64_t size);
  void unreserve(uint64_t address);
  void unreserveAll();

  const common::Endpoint& endpoint() const { return m_endpoint; }

 private:
  /// Runs `access`, a call of the process that returns true or throws vorn::Exception. On a
  /// failure throws Failure(`attempted`, why): the agent is gone, or `refusal()` says why it
  /// refused.
  template <typename Access, typename Refusal>
  void guarded(const std::string& attempted, Access access, Refusal refusal);
  /// A reservation operation's failure: the agent is gone, or `refusal` is why it refused.
  [[noreturn]] void reservationFailed(const std::string& attempted, const std::string& refusal);
  /// Whether this process's agent session is still up (a refusal leaves it up).
  bool agentAnswers();

  common::Endpoint m_endpoint;
  Diagnosis m_diagnosis;
  boost::shared_ptr<vorn::ConfigBlock> m_config;
  boost::shared_ptr<vorn::TargetConfig_TaProcessClient> m_client;
  boost::shared_ptr<vorn::TaProcessKVX> m_process;
  /// The memory space that accesses name, as the process announced it.
  std::string m_memorySpace;
};

}  // namespace kvx::cli
