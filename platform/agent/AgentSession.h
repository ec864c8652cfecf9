// One TCP connection to a target agent, carrying one request and its reply at a time.
//
// Not thread-safe: the caller serialises every call (libtarget.agent.so holds one instance under
// one mutex). The instance owns its socket. It is trivially destructible on purpose: the library
// keeps one at namespace scope, and a host thread still calling in while the process exits must
// not find it destroyed; the kernel closes the socket at exit.
#pragma once

#include <chrono>
#include <cstdint>

#include "common/Dialer.h"
#include "platform/agent/AgentStatus.h"
#include "platform/protocol/AgentProtocol.h"

namespace kvx::agent {


class AgentSession {
 public:
  constexpr AgentSession() = default;

  AgentSession(const AgentSession&) = delete;
  AgentSession& operator=(const AgentSession&) = delete;

  /// Closes any open connection, then resolves `address` (numeric IPv4, IPv6 or a host name),
  /// connects to `port` and shakes hands. The deadline, TA_AGENT_TIMEOUT_MS or 5000 ms, is read
  /// here and bounds this call as a whole, name lookup included, and then each later call. On
  /// failure no session is open.
  Status open(const char* address, int32_t port);

  /// Says goodbye to the agent, without waiting, and closes the connection. Harmless when none
  /// is open. Later calls fail with kNoSession.
  void close();

  /// kOk while the connection is up. Tests it without consuming data and without blocking: one
  /// non-blocking peek. A connection found closed or in error is dropped.
  Status checkConnection();

  /// Sends `request`, after giving it a fresh id, and waits for its reply, all within one
  /// deadline set as the call begins. kOk when the agent answered with success, kRefused when it
  /// answered with a refusal (`reply.status` says why). On a timeout, a lost connection or a
  /// reply that does not match, the connection is dropped and that status returned; later calls
  /// then fail fast with kConnectionLost.
  Status transact(protocol::Request& request, protocol::Reply& reply);

 private:
  using Clock = std::chrono::steady_clock;

  Status connectTo(const char* address, int32_t port, Clock::time_point deadline);
  /// transact() against `deadline`. `deadlineIsFresh`: it was set just before this call, so the
  /// socket's receive timeout, which is the whole deadline, may bound the first wait.
  Status exchange(protocol::Request& request, protocol::Reply& reply, Clock::time_point deadline,
                  bool deadlineIsFresh);
  /// Sends the whole frame by `deadline`; `atOnce` tells whether the first attempt took it whole.
  Status sendFrame(const uint8_t* frame, size_t length, Clock::time_point deadline, bool& atOnce);
  /// Receives a frame of `expected` bytes by `deadline`; `blockFirst`: see exchange().
  Status receiveFrame(size_t expected, Clock::time_point deadline, bool blockFirst);
  /// Closes the socket after a failure and returns `status`; later calls see kConnectionLost.
  Status drop(Status status);

  int m_fd = -1;
  /// What calls report while m_fd < 0.
  Status m_closedStatus = Status::kNoSession;
  uint32_t m_nextId = 1;
  /// The deadline of each call of the open session, in milliseconds.
  int m_timeoutMs = 0;
  /// Reaches the agent within the call's deadline, a resolver that hangs included.
  common::Dialer m_dialer;
  // Frames are built and received here, so a request allocates nothing.
  uint8_t m_sendBuffer[protocol::kMaxFrameSize] = {};
  uint8_t m_receiveBuffer[protocol::kMaxFrameSize] = {};
};

}  // namespace kvx::agent
