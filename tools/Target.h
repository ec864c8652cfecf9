// One agent endpoint as a debugger host reaches it through the plug-in: a configuration block the
// manager admits, a client registered with it, and the process the manager hands out. Every
// access goes through that process; nothing here calls the agent library directly.
//
// Owns the process and the client. Single-threaded: kvx-ta makes one access at a time.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include <boost/shared_ptr.hpp>

#include "common/Endpoint.h"

namespace vorn {
class ConfigBlock;
class TaProcessKVX;
class TargetConfig_TaProcessClient;
}  // namespace vorn

namespace kvx::cli {

class Target {
 public:
  /// Admits a configuration for `endpoint`, obtains its process and opens its agent session.
  /// Throws std::runtime_error when the plug-in declines or no session can be opened.
  explicit Target(const common::Endpoint& endpoint);
  /// Unregisters the client. Makes no agent call: the session closes with the program.
  ~Target();

  Target(const Target&) = delete;
  Target& operator=(const Target&) = delete;

  /// The configuration a host hands the plug-in for an agent at `endpoint`: TaType "KVX",
  /// ServerAddress and ServerPort.
  static boost::shared_ptr<vorn::ConfigBlock> configFor(const common::Endpoint& endpoint);

  // Target memory, in the memory space the process announces. One call is one access of `size`
  // bytes (1 to 8), bytes in target memory order. A refusal or a lost agent throws
  // vorn::Exception; when the agent no longer answers, its message says so.
  void read(uint64_t address, uint8_t* bytes, unsigned size);
  void write(uint64_t address, const uint8_t* bytes, unsigned size);

  // Registers are 64 bits wide. Failures as for memory.
  uint64_t readRegister(const std::string& name);
  void writeRegister(const std::string& name, uint64_t value);

  // Reservations of target memory. A failure throws std::runtime_error.
  /// The address of a new block of `size` bytes.
  uint64_t reserve(uint64_t size);
  void unreserve(uint64_t address);
  void unreserveAll();

  const common::Endpoint& endpoint() const { return m_endpoint; }

 private:
  /// Reservations act on whichever session the agent library has open and never open one
  /// themselves, so this makes sure the open session is this process's before each of them.
  void ensureSession();
  /// Runs one access of the process and returns its result. When it throws because the session
  /// is gone, the exception says that the agent no longer answers.
  template <typename Access>
  bool guarded(Access access);
  /// Whether this process's agent session is still up (a refusal leaves it up).
  bool agentAnswers();
  /// The error of a reservation operation that failed, saying whether the agent refused or is gone.
  std::runtime_error reservationFailure(const std::string& what);

  common::Endpoint m_endpoint;
  boost::shared_ptr<vorn::ConfigBlock> m_config;
  boost::shared_ptr<vorn::TargetConfig_TaProcessClient> m_client;
  boost::shared_ptr<vorn::TaProcessKVX> m_process;
  /// The memory space that accesses name, as the process announced it.
  std::string m_memorySpace;
};

}  // namespace kvx::cli
