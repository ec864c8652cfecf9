// The statuses that the functions of libtarget.agent.so return. Callers only test for zero; the
// distinct negative values are there for whoever reads a log or a debugger trace.
#pragma once

#include <cstdint>

namespace kvx::agent {

enum class Status : int32_t {
  kOk = 0,
  /// No session is open: none was started, or destroy_session closed it.
  kNoSession = -1,
  /// The agent closed the connection or the socket failed. The session is closed; every call
  /// but start_session and destroy_session fails with this status until one of them is made.
  kConnectionLost = -2,
  /// No reply came within the deadline (TA_AGENT_TIMEOUT_MS, 5000 ms by default). The reply
  /// could still arrive later, so the session is closed as after a lost connection.
  kTimeout = -3,
  /// The agent's reply could not be decoded or did not answer the request sent. The stream can
  /// no longer be trusted, so the session is closed as after a lost connection.
  kMalformedReply = -4,
  /// The agent answered and refused: a denied address, an unknown register, a value wider than
  /// its register, no room for a reservation, a refused session. The session stays open.
  kRefused = -5,
  /// start_session could not resolve the address or reach the agent within the deadline.
  kCannotConnect = -6,
  /// An argument was rejected before anything was sent: a null pointer, an access of more than
  /// 8 bytes, a register name that is empty or longer than 63 bytes, a port outside 1 to 65535.
  kInvalidArgument = -7,
  /// start_session found that the agent speaks another protocol version: it refused ours, or
  /// announced its own. No session is left open.
  kVersionMismatch = -8,
};

}  // namespace kvx::agent
