#include "platform/agent/AgentSession.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace target_agent {

namespace protocol = kvx::protocol;

namespace {

constexpr int kDefaultTimeoutMs = 5000;
/// An hour: anything longer in TA_AGENT_TIMEOUT_MS is taken for a typo and ignored.
constexpr long kMaxTimeoutMs = 3600L * 1000;
constexpr const char* kTimeoutVariable = "TA_AGENT_TIMEOUT_MS";

using Clock = std::chrono::steady_clock;

int timeoutFromEnvironment() {
  const char* text = std::getenv(kTimeoutVariable);
  if (text == nullptr || *text == '\0') return kDefaultTimeoutMs;
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text, &end, 10);
  if (errno != 0 || *end != '\0' || value <= 0 || value > kMaxTimeoutMs) return kDefaultTimeoutMs;
  return static_cast<int>(value);
}

int remainingMs(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

/// Waits until a non-blocking connect on `fd` completes or the deadline passes.
bool awaitConnected(int fd, Clock::time_point deadline) {
  for (;;) {
    pollfd p{fd, POLLOUT, 0};
    const int ready = ::poll(&p, 1, remainingMs(deadline));
    if (ready > 0) break;
    if (ready == 0 || errno != EINTR) return false;
  }
  int error = 0;
  socklen_t length = sizeof error;
  return ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
}

/// Turns a connected non-blocking socket into the blocking one that requests use, with the
/// reply deadline on both directions so that no call waits longer.
bool configureConnected(int fd, int timeoutMs) {
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0 || ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) < 0) return false;
  const int on = 1;
  if (::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) return false;
  timeval tv{};
  tv.tv_sec = timeoutMs / 1000;
  tv.tv_usec = static_cast<suseconds_t>(timeoutMs % 1000) * 1000;
  return ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) == 0 &&
         ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv) == 0;
}

}  // namespace

Status AgentSession::open(const char* address, int32_t port) {
  close();
  if (address == nullptr || port < 1 || port > 65535) return Status::kInvalidArgument;
  m_timeoutMs = timeoutFromEnvironment();

  const Status connected = connectTo(address, port);
  if (connected != Status::kOk) return connected;

  protocol::Request hello;
  hello.opcode = protocol::Opcode::kHello;
  hello.value = protocol::kProtocolVersion;
  protocol::Reply reply;
  Status status = transact(hello, reply);
  // An agent of another version refuses ours or announces its own; either way its other replies
  // could be misread.
  if ((status == Status::kOk || status == Status::kRefused) &&
      (reply.value != protocol::kProtocolVersion ||
       reply.status == protocol::ReplyStatus::kVersionMismatch)) {
    status = Status::kVersionMismatch;
  }
  // A failed handshake leaves no session, whatever the reason.
  if (status != Status::kOk) close();
  return status;
}

Status AgentSession::connectTo(const char* address, int32_t port) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  char service[8];
  std::snprintf(service, sizeof service, "%d", static_cast<int>(port));
  addrinfo* found = nullptr;
  if (::getaddrinfo(address, service, &hints, &found) != 0) return Status::kCannotConnect;

  // One deadline for every address the name resolves to, so a host name with several
  // unreachable addresses still fails within the timeout. The resolution itself is bounded by
  // the resolver's own timeouts.
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(m_timeoutMs);
  for (const addrinfo* ai = found; ai != nullptr && m_fd < 0; ai = ai->ai_next) {
    const int fd = ::socket(ai->ai_family, ai->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, ai->ai_protocol);
    if (fd < 0) continue;
    const bool ok = (::connect(fd, ai->ai_addr, ai->ai_addrlen) == 0 ||
                     (errno == EINPROGRESS && awaitConnected(fd, deadline))) &&
                    configureConnected(fd, m_timeoutMs);
    if (ok) {
      m_fd = fd;
    } else {
      ::close(fd);
    }
  }
  ::freeaddrinfo(found);
  return m_fd >= 0 ? Status::kOk : Status::kCannotConnect;
}

void AgentSession::close() {
  if (m_fd >= 0) {
    // Best effort: lets the agent log a clean end. Nothing waits for it, and a full or broken
    // socket simply loses it.
    protocol::Request goodbye;
    goodbye.opcode = protocol::Opcode::kGoodbye;
    goodbye.id = m_nextId++;
    const size_t length = protocol::encodeRequest(goodbye, m_sendBuffer, sizeof m_sendBuffer);
    (void)::send(m_fd, m_sendBuffer, length, MSG_NOSIGNAL | MSG_DONTWAIT);
    ::close(m_fd);
    m_fd = -1;
  }
  m_closedStatus = Status::kNoSession;
}

Status AgentSession::checkConnection() {
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
  if (m_fd < 0) return m_closedStatus;
  request.id = m_nextId++;
  const size_t length = protocol::encodeRequest(request, m_sendBuffer, sizeof m_sendBuffer);
  if (length == 0) return Status::kInvalidArgument;
  const size_t expected = protocol::replyFrameSize(request.opcode);

  Status status = sendFrame(m_sendBuffer, length);
  if (status == Status::kOk) status = receiveFrame(expected);
  if (status != Status::kOk) return drop(status);
  if (!protocol::decodeReply(m_receiveBuffer, expected, reply) || reply.id != request.id ||
      reply.opcode != request.opcode) {
    return drop(Status::kMalformedReply);
  }
  return reply.status == protocol::ReplyStatus::kOk ? Status::kOk : Status::kRefused;
}

Status AgentSession::sendFrame(const uint8_t* frame, size_t length) {
  size_t sent = 0;
  while (sent < length) {
    // MSG_NOSIGNAL: a host process cannot be expected to ignore SIGPIPE for us.
    const ssize_t n = ::send(m_fd, frame + sent, length - sent, MSG_NOSIGNAL);
    if (n > 0) {
      sent += static_cast<size_t>(n);
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) ? Status::kTimeout : Status::kConnectionLost;
    }
  }
  return Status::kOk;
}

Status AgentSession::receiveFrame(size_t expected) {
  // Steady state: one recv brings the whole reply, its wait bounded by SO_RCVTIMEO. A reply
  // split across segments, or a wait cut short by a signal, takes the slow path below, which
  // keeps an overall deadline so that neither a trickling agent nor a stream of signals can
  // stretch the wait without bound.
  size_t received = 0;
  bool deadlineSet = false;
  Clock::time_point deadline;
  for (;;) {
    const ssize_t n = ::recv(m_fd, m_receiveBuffer + received, sizeof m_receiveBuffer - received, 0);
    if (n == 0) return Status::kConnectionLost;
    if (n < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK) return Status::kTimeout;
      if (errno != EINTR) return Status::kConnectionLost;
    } else {
      received += static_cast<size_t>(n);
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

    if (!deadlineSet) {
      deadline = Clock::now() + std::chrono::milliseconds(m_timeoutMs);
      deadlineSet = true;
    }
    pollfd p{m_fd, POLLIN, 0};
    const int ready = ::poll(&p, 1, remainingMs(deadline));
    if (ready == 0) return Status::kTimeout;
    if (ready < 0 && errno != EINTR) return Status::kConnectionLost;
  }
}

Status AgentSession::drop(Status status) {
  ::close(m_fd);
  m_fd = -1;
  m_closedStatus = Status::kConnectionLost;
  return status;
}

}  // namespace target_agent
