// The simulated target behind every connection: turns a decoded request into its reply against
// memory, registers and reservations shared by all clients. Not thread-safe: the server calls it
// from its one thread.
#pragma once

#include "platform/protocol/AgentProtocol.h"
#include "sim/RegisterFile.h"
#include "sim/ReservationMap.h"
#include "sim/SimOptions.h"
#include "sim/TargetMemory.h"

namespace kvx::sim {

class RequestHandler {
 public:
  /// Throws std::invalid_argument when the options describe an impossible reservation region.
  explicit RequestHandler(const SimOptions& options);

  RequestHandler(const RequestHandler&) = delete;
  RequestHandler& operator=(const RequestHandler&) = delete;

  /// Answers `request` into `reply`. Goodbye has no reply and is not passed here.
  void handle(const protocol::Request& request, protocol::Reply& reply);

 private:
  bool m_refuseSessions;
  TargetMemory m_memory;
  RegisterFile m_registers;
  ReservationMap m_reservations;
};

}  // namespace kvx::sim
