// The agent session: one TCP connection to a target agent, carrying one request and its reply at
// a time, and the recently used connections kept open behind it (ConnectionPool).
//
// Closing a session ends it at the agent, which then forgets who holds it (EndSession, one frame
// that nothing waits for), but keeps the connection open, parked under its address and port, so
// that opening a session with that endpoint again costs neither a connect nor a handshake: a host
// that alternates between agents switches at the cost of one frame and one peek. Resuming a
// parked connection is as good as a handshake: an agent gives the session to another host only
// after closing the parked connections, so one that is still open, with nothing unasked in it,
// is one that the agent takes back. A dead one (its agent gone, restarted, or its session given
// away) is closed and replaced by a new connection and handshake, within the open's deadline. A
// connection parked for ConnectionPool::kIdleLimit is closed at the library's next call, and
// each closed connection gets the agent's Goodbye first.
//
// Not thread-safe: the caller serialises every call (libtarget.agent.so holds one instance under
// one mutex). The instance owns its sockets. It is trivially destructible on purpose: the library
// keeps one at namespace scope, and a host thread still calling in while the process exits must
// not find it destroyed; closeAll() is for the library's unload.
#pragma once

#include <chrono>
#include <cstdint>

#include "common/Dialer.h"
#include "common/SpinBackoff.h"
#include "platform/agent/AgentStatus.h"
#include "platform/agent/ConnectionPool.h"
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

  /// Ends the session at the agent (EndSession) and parks its connection. Harmless when none is
  /// open. Later calls fail with kNoSession.
  void close();
  /// Says Goodbye on every connection, the session's and the parked ones, and closes them.
  void closeAll();

  /// In a child that fork() made: the connections are the parent's, and a byte sent, read, or a
  /// Goodbye said on them would reach or end the parent's sessions. They are given up without a
  /// word: closed when `intact`, which only drops the child's hold on them; merely forgotten when a
  /// thread of the parent was inside a call at the fork, as their descriptors may then be stale.
  /// The child's next call opens the session again where it was, on a connection of its own.
  void leaveToParent(bool intact);

  /// kOk while the connection is up. Tests it without consuming data and without blocking: one
  /// non-blocking peek. A connection found closed or in error is dropped.
  Status checkConnection();

  /// Sends `request`, after giving it a fresh id, and waits for its reply, all within one
  /// deadline set as the call begins. kOk when the agent answered with success; when it answered
  /// with a refusal, the status that names the refusal (kDenied, kNoSpace, ...). On a timeout, a lost
  /// connection or a reply that does not match, the connection is dropped and that status returned; later
  /// calls then fail fast with kConnectionLost.
  Status transact(protocol::Request& request, protocol::Reply& reply);

 private:
  using Clock = std::chrono::steady_clock;

  /// open() itself, within m_opening.
  Status openNow(const char* address, int32_t port);
  /// In a forked child, at its first call: opens the session where the parent had it, if m_reopen.
  Status reopenInChild();
  Status connectTo(const char* address, int32_t port, Clock::time_point deadline);
  /// Takes the parked connection to (`address`, `port`) if there is one and it is alive.
  bool resume(const char* address, int32_t port);
  /// Closes the parked connections that have been idle for ConnectionPool::kIdleLimit by `now`.
  void expire(Clock::time_point now);
  /// Says Goodbye on every parked connection and closes them.
  void closeParked();
  /// Sends EndSession on the session's connection, without waiting; false unless it went out whole.
  bool endSession();
  /// Says Goodbye on `fd`, without waiting, and closes it.
  void sayGoodbye(int fd, uint32_t id);
  /// transact() against `deadline`. `deadlineIsFresh`: it was set just before this call, so the
  /// socket's receive timeout, which is the whole deadline, may bound the first wait.
  Status exchange(protocol::Request& request, protocol::Reply& reply, Clock::time_point deadline,
                  bool deadlineIsFresh);
  /// Sends the whole frame by `deadline`; `atOnce` tells whether the first attempt took it whole.
  Status sendFrame(const uint8_t* frame, size_t length, Clock::time_point deadline, bool& atOnce);
  /// Receives a frame of `expected` bytes by `deadline`; `blockFirst`: see exchange().
  Status receiveFrame(size_t expected, Clock::time_point deadline, bool blockFirst);
  /// Polls for the reply for up to kSpinLimit before the caller sleeps in recv, while polling
  /// keeps paying off; true when bytes came, `received` of them. When the back-off skips the
  /// poll, `unpolledSince` says from when, so that a reply that would have been caught resets it.
  bool spinForReply(size_t& received, Clock::time_point& unpolledSince);

  /// How long a call polls for its reply before it sleeps. An agent on another CPU answers in
  /// less than this when it is not asleep itself, while waking a sleeping caller there costs tens
  /// of microseconds. m_spin backs off from an agent that is slower than that, so it costs little
  /// CPU; waiting for a reply is the only time the library polls, so an idle host costs none.
  static constexpr std::chrono::microseconds kSpinLimit{50};
  /// Closes the socket after a failure and returns `status`; later calls see kConnectionLost.
  Status drop(Status status);

  int m_fd = -1;
  /// The session's endpoint, under which its connection is parked.
  char m_address[kMaxAddress] = {};
  int32_t m_port = 0;
  ConnectionPool m_pool;
  /// What calls report while m_fd < 0.
  Status m_closedStatus = Status::kNoSession;
  /// Inside open(), when m_address may be half written.
  bool m_opening = false;
  /// A forked child has yet to open its own connection for the session the parent had open.
  bool m_reopen = false;
  uint32_t m_nextId = 1;
  /// The deadline of each call of the open session, in milliseconds.
  int m_timeoutMs = 0;
  /// Whether the next call polls for its reply.
  common::SpinBackoff m_spin;
  /// Reaches the agent within the call's deadline, a resolver that hangs included.
  common::Dialer m_dialer;
  // Frames are built and received here, so a request allocates nothing.
  uint8_t m_sendBuffer[protocol::kMaxFrameSize] = {};
  uint8_t m_receiveBuffer[protocol::kMaxFrameSize] = {};
};

}  // namespace kvx::agent
