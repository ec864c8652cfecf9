// The plug-in's entry point for the host: tells whether a configuration block names the KVX
// access method, and creates target-access processes for those that do. It holds no state, so
// any host thread may call any operation at any time; each answer rests on the block alone. The
// processes it creates must be released before the host's last dlclose of the plug-in (see
// agent/TaProcessKVX.h).
#pragma once

#include <cstdint>
#include <string>

#include <boost/shared_ptr.hpp>

#include "vorn/Visibility.h"

namespace vorn {

class ConfigBlock;
class TaClient;
class TaProcess;

/// Admission result codes of registerClient and unregisterClient; each is a single bit.
constexpr int32_t TA_METHOD_SERVED = 0x1;       ///< The block names the access method "KVX".
constexpr int32_t TA_METHOD_NOT_SERVED = 0x80;  ///< The block names another access method.
constexpr int32_t TA_METHOD_MISSING = 0x100;    ///< The block names no readable access method.

class VORN_API TaProcessManager {
 public:
  TaProcessManager(const TaProcessManager&) = delete;
  TaProcessManager& operator=(const TaProcessManager&) = delete;

  /// The one instance; created on the first call, safe against concurrent first calls.
  static TaProcessManager& getInstance();

  /// Answers TA_METHOD_SERVED, TA_METHOD_NOT_SERVED or TA_METHOD_MISSING from `config` alone;
  /// the client is never looked at. An empty `config` answers TA_METHOD_MISSING. A "Target
  /// Access Method" with an empty value list throws std::out_of_range.
  int32_t registerClient(boost::shared_ptr<TaClient> client, boost::shared_ptr<ConfigBlock> config);

  /// Exactly as registerClient; the name is never looked at.
  int32_t unregisterClient(const std::string& clientName, boost::shared_ptr<ConfigBlock> config);

  /// A new process for the agent endpoint that `config` names ("ServerAddress", "ServerPort"),
  /// owned solely by the caller; an empty pointer when the block is empty, is not served or is
  /// incomplete. The name is never looked at.
  boost::shared_ptr<TaProcess> getTaProcess(const std::string& name, boost::shared_ptr<ConfigBlock> config);

 private:
  TaProcessManager() = default;
};

}  // namespace vorn
