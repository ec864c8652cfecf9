// The statuses that the functions of libtarget.agent.so return: 0 for success and a distinct
// negative value for each cause of failure, so that a host that knows this library can say why
// a call failed without asking the agent again. The plug-in itself only tests for zero.
#pragma once

#include <cstdint>

namespace kvx::agent {

enum class Status : int32_t {
  kOk = 0,
  /// No session is open: none was started, destroy_session closed it, or start_session failed.
  kNoSession = -1,
  /// The agent closed the connection or the socket failed. The session is closed; every call
  /// but start_session and destroy_session fails with this status until one of them is made.
  kConnectionLost = -2,
  /// No answer came within the deadline (TA_AGENT_TIMEOUT_MS, 5000 ms by default): a reply, or
  /// the connection or handshake of start_session. A late reply could still arrive, so the
  /// session is closed as after a lost connection.
  kTimeout = -3,
  /// The peer's answer could not be decoded or did not answer the request sent: at start_session,
  /// what answered is not an agent. The stream can no longer be trusted, so the session is closed
  /// as after a lost connection.
  kMalformedReply = -4,
  /// The agent refused the request for a reason it did not name. The session stays open, as it
  /// does after every refusal below.
  kRefused = -5,
  /// start_session could not reach the agent for another reason than those below, such as an
  /// unreachable network.
  kCannotConnect = -6,
  /// An argument was rejected before anything was sent: a null pointer, an access of more than
  /// 8 bytes, a register name that is empty or longer than 63 bytes, a port outside 1 to 65535.
  kInvalidArgument = -7,
  /// start_session found that the agent speaks another protocol version: it refused ours, or
  /// announced its own. No session is left open.
  kVersionMismatch = -8,
  /// start_session: the agent's host name does not resolve.
  kUnresolved = -9,
  /// start_session: the connection was refused; nothing listens on that port.
  kConnectionRefused = -10,
  /// start_session: the agent answered and accepts no session.
  kSessionRefused = -11,
  /// io_read, io_write: the agent closes that address range to accesses.
  kDenied = -12,
  /// io_write: the agent holds no more target memory.
  kOutOfMemory = -13,
  /// reg_read, reg_write: the agent has no register of that name.
  kUnknownRegister = -14,
  /// reg_write: the value has bits set above the register's width.
  kValueTooWide = -15,
  /// ddr_reserve: no free block of the reservation region is that large.
  kNoSpace = -16,
  /// ddr_unreserve: the address does not start a reserved block.
  kNotReserved = -17,
  /// The agent refused an argument that it checks itself, such as a reservation of 0 bytes.
  kArgumentRefused = -18,
  /// start_session: the agent admits one session at a time, and another host's is open.
  kBusy = -19,
};

}  // namespace kvx::agent
