#include "platform/agent/AgentSession.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "common/AgentTimeout.h"
#include "common/Deadline.h"

namespace kvx::agent {

namespace {

using Clock = std::chrono::steady_clock;

/// What a call returns for the agent's answer `status`.
Status statusOf(protocol::ReplyStatus status) {
  switch (status) {
    case protocol::ReplyStatus::kOk:
      return Status::kOk;
    case protocol::ReplyStatus::kDenied:
      return Status::kDenied;
    case protocol::ReplyStatus::kOutOfMemory:
      return Status::kOutOfMemory;
    case protocol::ReplyStatus::kUnknownRegister:
      return Status::kUnknownRegister;
    case protocol::ReplyStatus::kInvalidArgument:
      return Status::kArgumentRefused;
    case protocol::ReplyStatus::kNoSpace:
      return Status::kNoSpace;
    case protocol::ReplyStatus::kNotReserved:
      return Status::kNotReserved;
    case protocol::ReplyStatus::kVersionMismatch:
      return Status::kVersionMismatch;
    case protocol::ReplyStatus::kSessionRefused:
      return Status::kSessionRefused;
    case protocol::ReplyStatus::kValueTooWide:
      return Status::kValueTooWide;
    case protocol::ReplyStatus::kBusy:
      return Status::kBusy;
  }
  return Status::kRefused;
}

/// Waits until `fd` is ready for `events` or `deadline` passes. An error or a hang-up counts as
/// ready: the send or recv that follows reports it.
Status waitFor(int fd, short events, Clock::time_point deadline) {
  for (;;) {
    pollfd p{fd, events, 0};
    const int ready = ::poll(&p, 1, common::remainingMs(deadline));
    if (ready > 0) return Status::kOk;
    if (ready == 0 && Clock::now() >= deadline) return Status::kTimeout;
    if (ready < 0 && errno != EINTR) return Status::kConnectionLost;
  }
}

/// Turns a connected non-blocking socket into the blocking one that requests use, with the
/// call deadline as its receive timeout: the bound of the first wait for a reply.
bool configureConnected(int fd, int timeoutMs) {
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0 || ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) < 0) return false;
  const int on = 1;
  if (::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) return false;
  timeval tv{};
  tv.tv_sec = timeoutMs / 1000;
  tv.tv_usec = static_cast<suseconds_t>(timeoutMs % 1000) * 1000;
  return ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) == 0;
}

}  // namespace

Status AgentSession::open(const char* address, int32_t port) {
  m_opening = true;
  const Status status = openNow(address, port);
  m_opening = false;
  return status;
}

Status AgentSession::openNow(const char* address, int32_t port) {
  close();
  if (address == nullptr || port < 1 || port > 65535 || std::strlen(address) >= kMaxAddress) {
    return Status::kInvalidArgument;
  }
  const int timeoutMs = static_cast<int>(common::agentTimeoutMs());
  const Clock::time_point now = Clock::now();
  expire(now);
  std::strcpy(m_address, address);
  m_port = port;
  if (resume(address, port)) {
    // The receive timeout is the deadline, which the environment may have changed since.
    if (timeoutMs == m_timeoutMs || configureConnected(m_fd, timeoutMs)) {
      m_timeoutMs = timeoutMs;
      return Status::kOk;
    }
    drop(Status::kOk);
  }
  m_timeoutMs = timeoutMs;
  // One deadline for the whole call: the lookup, every address tried, and the handshake.
  const Clock::time_point deadline = now + std::chrono::milliseconds(m_timeoutMs);

  const Status connected = connectTo(address, port, deadline);
  if (connected != Status::kOk) return connected;

  protocol::Request hello;
  hello.opcode = protocol::Opcode::kHello;
  hello.value = protocol::kProtocolVersion;
  protocol::Reply reply;
  Status status = exchange(hello, reply, deadline, false);
  // An agent of another version refuses ours or announces its own; either way its other replies
  // could be misread. Any other refusal of the handshake refuses the session.
  const bool answered = status == Status::kOk || reply.status != protocol::ReplyStatus::kOk;
  if (answered && (reply.value != protocol::kProtocolVersion ||
                   reply.status == protocol::ReplyStatus::kVersionMismatch)) {
    status = Status::kVersionMismatch;
  } else if (answered && status != Status::kOk && status != Status::kBusy) {
    status = Status::kSessionRefused;
  }
  // A failed handshake leaves no session, whatever the reason, and nothing to park.
  if (status != Status::kOk && m_fd >= 0) {
    sayGoodbye(m_fd, m_nextId++);
    m_fd = -1;
    m_closedStatus = Status::kNoSession;
  }
  return status;
}

bool AgentSession::resume(const char* address, int32_t port) {
  const ConnectionPool::Connection parked = m_pool.take(address, port);
  if (parked.fd < 0) return false;
  // Alive: nothing to read and no error. End of stream, a reset, or bytes the agent sent unasked
  // mean that it is gone, restarted, out of step with us, or has given the session to another host.
  uint8_t byte;
  const ssize_t n = ::recv(parked.fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
    m_fd = parked.fd;
    m_nextId = parked.nextId;
    return true;
  }
  ::close(parked.fd);
  return false;
}

void AgentSession::expire(Clock::time_point now) {
  for (ConnectionPool::Connection idle; (idle = m_pool.takeExpired(now)).fd >= 0;)
    sayGoodbye(idle.fd, idle.nextId);
}

void AgentSession::sayGoodbye(int fd, uint32_t id) {
  // Best effort: lets the agent log a clean end. Nothing waits for it, and a full or broken socket
  // simply loses it.
  protocol::Request goodbye;
  goodbye.opcode = protocol::Opcode::kGoodbye;
  goodbye.id = id;
  uint8_t frame[protocol::kMaxFrameSize];
  const size_t length = protocol::encodeRequest(goodbye, frame, sizeof frame);
  (void)::send(fd, frame, length, MSG_NOSIGNAL | MSG_DONTWAIT);
  ::close(fd);
}

Status AgentSession::connectTo(const char* address, int32_t port, Clock::time_point deadline) {
  common::Dialer::Result dialed = m_dialer.dial(address, port, deadline);
  // Out of descriptors: the parked connections give theirs back, and the dial is tried once more.
  if (dialed.error == common::Dialer::Error::kFailed &&
      (dialed.systemError == EMFILE || dialed.systemError == ENFILE) && m_pool.size() != 0) {
    closeParked();
    dialed = m_dialer.dial(address, port, deadline);
  }
  switch (dialed.error) {
    case common::Dialer::Error::kNone:
      break;
    case common::Dialer::Error::kUnresolved:
      return Status::kUnresolved;
    case common::Dialer::Error::kRefused:
      return Status::kConnectionRefused;
    case common::Dialer::Error::kTimedOut:
      return Status::kTimeout;
    case common::Dialer::Error::kFailed:
      return Status::kCannotConnect;
  }
  if (!configureConnected(dialed.fd, m_timeoutMs)) {
    ::close(dialed.fd);
    return Status::kCannotConnect;
  }
  m_fd = dialed.fd;
  return Status::kOk;
}

void AgentSession::close() {
  // The agent hears that the session has ended, so that it may admit another host's, and keeps
  // the connection for a session to come. A connection that cannot take the message whole at once
  // is out of step: it is closed instead.
  if (m_fd >= 0 && !endSession()) {
    sayGoodbye(m_fd, m_nextId++);
    m_fd = -1;
  }
  if (m_fd >= 0) {
    const ConnectionPool::Connection leaving = m_pool.park({m_fd, m_nextId}, m_address, m_port, Clock::now());
    if (leaving.fd >= 0) sayGoodbye(leaving.fd, leaving.nextId);
    m_fd = -1;
  }
  m_closedStatus = Status::kNoSession;
  m_reopen = false;
}

void AgentSession::leaveToParent(bool intact) {
  m_reopen = m_fd >= 0 && !m_opening;
  if (intact) {
    if (m_fd >= 0) ::close(m_fd);
    for (ConnectionPool::Connection parked; (parked = m_pool.takeAny()).fd >= 0;) ::close(parked.fd);
  }
  m_pool.forget();
  m_fd = -1;
  m_closedStatus = Status::kNoSession;
  m_opening = false;
  m_spin = common::SpinBackoff();
  // Lookups the parent gave up belong to its resolver threads, which the child does not have.
  m_dialer = common::Dialer();
}

Status AgentSession::reopenInChild() {
  if (!m_reopen) return Status::kOk;
  m_reopen = false;
  char address[kMaxAddress];
  std::strcpy(address, m_address);
  return open(address, m_port);
}

bool AgentSession::endSession() {
  protocol::Request end;
  end.opcode = protocol::Opcode::kEndSession;
  end.id = m_nextId++;
  uint8_t frame[protocol::kMaxFrameSize];
  const size_t length = protocol::encodeRequest(end, frame, sizeof frame);
  return ::send(m_fd, frame, length, MSG_NOSIGNAL | MSG_DONTWAIT) == static_cast<ssize_t>(length);
}

void AgentSession::closeParked() {
  for (ConnectionPool::Connection parked; (parked = m_pool.takeAny()).fd >= 0;)
    sayGoodbye(parked.fd, parked.nextId);
}

void AgentSession::closeAll() {
  if (m_fd >= 0) sayGoodbye(m_fd, m_nextId++);
  m_fd = -1;
  close();
  closeParked();
  m_pool.release();
}

Status AgentSession::checkConnection() {
  if (const Status reopened = reopenInChild(); reopened != Status::kOk) return reopened;
  if (m_fd < 0) return m_closedStatus;
  // A peek reports end-of-stream as 0 and a pending socket error (a reset) as -1 with that
  // error, so no separate SO_ERROR query is needed.
  uint8_t byte;
  const ssize_t n = ::recv(m_fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return Status::kOk;
  // Bytes the agent sent unasked mean the stream is out of step with our requests.
  return drop(n > 0 ? Status::kMalformedReply : Status::kConnectionLost);
}

Status AgentSession::transact(protocol::Request& request, protocol::Reply& reply) {
  if (const Status reopened = reopenInChild(); reopened != Status::kOk) return reopened;
  const Clock::time_point now = Clock::now();
  expire(now);
  return exchange(request, reply, now + std::chrono::milliseconds(m_timeoutMs), true);
}

Status AgentSession::exchange(protocol::Request& request, protocol::Reply& reply, Clock::time_point deadline,
                              bool deadlineIsFresh) {
  if (m_fd < 0) return m_closedStatus;
  request.id = m_nextId++;
  const size_t length = protocol::encodeRequest(request, m_sendBuffer, sizeof m_sendBuffer);
  if (length == 0) return Status::kInvalidArgument;
  const size_t expected = protocol::replyFrameSize(request.opcode);

  bool sentAtOnce = false;
  Status status = sendFrame(m_sendBuffer, length, deadline, sentAtOnce);
  if (status == Status::kOk) status = receiveFrame(expected, deadline, deadlineIsFresh && sentAtOnce);
  if (status != Status::kOk) return drop(status);
  if (!protocol::decodeReply(m_receiveBuffer, expected, reply) || reply.id != request.id ||
      reply.opcode != request.opcode) {
    return drop(Status::kMalformedReply);
  }
  return statusOf(reply.status);
}

Status AgentSession::sendFrame(const uint8_t* frame, size_t length, Clock::time_point deadline,
                               bool& atOnce) {
  atOnce = true;
  size_t sent = 0;
  for (;;) {
    // MSG_NOSIGNAL: a host process cannot be expected to ignore SIGPIPE for us. MSG_DONTWAIT: a
    // full send buffer is waited for below, against the deadline.
    const ssize_t n = ::send(m_fd, frame + sent, length - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      sent += static_cast<size_t>(n);
      if (sent == length) return Status::kOk;
    } else if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
      return Status::kConnectionLost;
    }
    atOnce = false;
    const Status ready = waitFor(m_fd, POLLOUT, deadline);
    if (ready != Status::kOk) return ready;
  }
}

Status AgentSession::receiveFrame(size_t expected, Clock::time_point deadline, bool blockFirst) {
  // Steady state: one blocking recv brings the whole reply, its wait bounded by SO_RCVTIMEO,
  // which equals the whole deadline and so may only bound a wait that starts as the deadline
  // does. Any other wait (a reply split across segments, a signal, a call that has already
  // spent time) polls for what is left of the deadline, so that neither a trickling agent nor a
  // stream of signals can stretch the call.
  size_t received = 0;
  // Bytes that came while polling are looked at before anything waits for more.
  Clock::time_point unpolledSince{};
  bool polled = spinForReply(received, unpolledSince);
  bool blocking = blockFirst && !polled;
  for (;;) {
    if (!polled) {
      if (!blocking) {
        const Status ready = waitFor(m_fd, POLLIN, deadline);
        if (ready != Status::kOk) return ready;
      }
      const ssize_t n = ::recv(m_fd, m_receiveBuffer + received, sizeof m_receiveBuffer - received,
                               blocking ? 0 : MSG_DONTWAIT);
      const bool blocked = blocking;
      blocking = false;
      if (n == 0) return Status::kConnectionLost;
      if (n < 0) {
        // After a blocking recv, EAGAIN means its timeout, the deadline, ran out.
        if ((errno == EAGAIN || errno == EWOULDBLOCK) && blocked) return Status::kTimeout;
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) return Status::kConnectionLost;
        continue;
      }
      received += static_cast<size_t>(n);
      // A reply that nobody polled for, yet came as soon as a poll would have waited for it.
      if (unpolledSince != Clock::time_point{} && Clock::now() - unpolledSince < kSpinLimit)
        m_spin.wouldHavePaid();
      unpolledSince = {};
    }
    polled = false;
    if (received >= protocol::kHeaderSize) {
      protocol::FrameHeader header;
      if (!protocol::decodeHeader(m_receiveBuffer, received, header) ||
          protocol::kHeaderSize + header.payloadLength != expected) {
        return Status::kMalformedReply;
      }
    }
    // More than one reply's worth means the agent sent something we did not ask for.
    if (received > expected) return Status::kMalformedReply;
    if (received == expected) return Status::kOk;
  }
}

bool AgentSession::spinForReply(size_t& received, Clock::time_point& unpolledSince) {
  if (!m_spin.shouldPoll()) {
    unpolledSince = Clock::now();
    return false;
  }
  const Clock::time_point end = Clock::now() + kSpinLimit;
  do {
    const ssize_t n = ::recv(m_fd, m_receiveBuffer, sizeof m_receiveBuffer, MSG_DONTWAIT);
    if (n > 0) {
      received = static_cast<size_t>(n);
      m_spin.paidOff();
      return true;
    }
    // An end of stream or an error is the receive loop's to report.
    if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) return false;
    // An agent on this CPU gets it at once, instead of when we are preempted; with nothing else
    // to run here, the call returns at once.
    ::sched_yield();
  } while (Clock::now() < end);
  m_spin.cameUpEmpty();
  return false;
}

Status AgentSession::drop(Status status) {
  ::close(m_fd);
  m_fd = -1;
  m_closedStatus = Status::kConnectionLost;
  return status;
}

}  // namespace kvx::agent
