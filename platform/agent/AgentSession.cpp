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
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace kvx::agent {

/// One name lookup handed to libc's resolver threads (getaddrinfo_a). Everything the resolver
/// reads or writes lives in here, on the heap: a lookup given up at its deadline goes on in a
/// thread of libc, which keeps using this memory until it is done, even after the library that
/// started it has been unloaded. So it is freed only once gai_cancel says no thread holds it,
/// and simply left alive when the session forgets it (dlclose): a small leak, never a write into
/// freed memory. The library starts no thread of its own, which it could not stop before dlclose.
struct NameLookup {
  char name[NI_MAXHOST] = {};
  char service[8] = {};
  addrinfo hints{};
  gaicb request{};
  /// The next lookup on the session's list of abandoned ones.
  NameLookup* next = nullptr;
};

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kDefaultTimeoutMs = 5000;
/// An hour: anything longer in TA_AGENT_TIMEOUT_MS is taken for a typo and ignored.
constexpr long kMaxTimeoutMs = 3600L * 1000;
constexpr const char* kTimeoutVariable = "TA_AGENT_TIMEOUT_MS";

int timeoutFromEnvironment() {
  const char* text = std::getenv(kTimeoutVariable);
  if (text == nullptr || *text == '\0') return kDefaultTimeoutMs;
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text, &end, 10);
  if (errno != 0 || *end != '\0' || value <= 0 || value > kMaxTimeoutMs) return kDefaultTimeoutMs;
  return static_cast<int>(value);
}

/// The time left until `deadline`, rounded up, so that a poll for it never ends early.
int remainingMs(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left <= 0 ? 0 : left >= INT_MAX ? INT_MAX : static_cast<int>(left);
}

/// Waits until `fd` is ready for `events` or `deadline` passes. An error or a hang-up counts as
/// ready: the send or recv that follows reports it.
Status waitFor(int fd, short events, Clock::time_point deadline) {
  for (;;) {
    pollfd p{fd, events, 0};
    const int ready = ::poll(&p, 1, remainingMs(deadline));
    if (ready > 0) return Status::kOk;
    if (ready == 0 && Clock::now() >= deadline) return Status::kTimeout;
    if (ready < 0 && errno != EINTR) return Status::kConnectionLost;
  }
}

/// Frees `lookup` and its result once no resolver thread refers to it any more; until then
/// keeps it on `abandoned`.
void release(NameLookup* lookup, NameLookup*& abandoned) {
  // gai_cancel answers under the resolver's own lock: EAI_NOTCANCELED while a thread works on
  // the request; any other answer means no thread will touch it again.
  if (::gai_cancel(&lookup->request) == EAI_NOTCANCELED) {
    lookup->next = abandoned;
    abandoned = lookup;
    return;
  }
  if (::gai_error(&lookup->request) == 0 && lookup->request.ar_result != nullptr) {
    ::freeaddrinfo(lookup->request.ar_result);
  }
  delete lookup;
}

/// Looks up a host name in libc's resolver threads and waits for the answer until `deadline`.
/// The addresses found, to be freed with freeaddrinfo, or nullptr.
addrinfo* resolveName(const char* address, const char* service, Clock::time_point deadline,
                      NameLookup*& abandoned) {
  // Lookups given up earlier that have finished since are freed now.
  NameLookup* earlier = abandoned;
  abandoned = nullptr;
  while (earlier != nullptr) {
    NameLookup* lookup = earlier;
    earlier = earlier->next;
    release(lookup, abandoned);
  }

  if (std::strlen(address) >= sizeof NameLookup::name) return nullptr;
  NameLookup* lookup = new (std::nothrow) NameLookup;
  if (lookup == nullptr) return nullptr;
  std::strcpy(lookup->name, address);
  std::strcpy(lookup->service, service);
  lookup->hints.ai_family = AF_UNSPEC;
  lookup->hints.ai_socktype = SOCK_STREAM;
  lookup->hints.ai_flags = AI_NUMERICSERV;
  lookup->request.ar_name = lookup->name;
  lookup->request.ar_service = lookup->service;
  lookup->request.ar_request = &lookup->hints;
  gaicb* requests[] = {&lookup->request};
  addrinfo* found = nullptr;
  if (::getaddrinfo_a(GAI_NOWAIT, requests, 1, nullptr) == 0) {
    const gaicb* const waitList[] = {&lookup->request};
    for (;;) {
      const int state = ::gai_error(&lookup->request);
      if (state != EAI_INPROGRESS) {
        if (state == 0) std::swap(found, lookup->request.ar_result);
        break;
      }
      const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline - Clock::now()).count();
      if (left <= 0) break;
      const timespec wait{static_cast<time_t>(left / 1000000000), static_cast<long>(left % 1000000000)};
      // Returns when the lookup is done, the time is up or a signal came; the loop tells which.
      (void)::gai_suspend(waitList, 1, &wait);
    }
  }
  release(lookup, abandoned);
  return found;
}

/// The addresses of `address` and `service` for a stream socket, found by `deadline`, to be
/// freed with freeaddrinfo; nullptr when there are none.
addrinfo* resolve(const char* address, const char* service, Clock::time_point deadline,
                  NameLookup*& abandoned) {
  // A numeric address needs no resolver, so it cannot hang and costs no thread.
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int numeric = ::getaddrinfo(address, service, &hints, &found);
  if (numeric == 0) return found;
  return numeric == EAI_NONAME ? resolveName(address, service, deadline, abandoned) : nullptr;
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
  close();
  if (address == nullptr || port < 1 || port > 65535) return Status::kInvalidArgument;
  m_timeoutMs = timeoutFromEnvironment();
  // One deadline for the whole call: the lookup, every address tried, and the handshake.
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(m_timeoutMs);

  const Status connected = connectTo(address, port, deadline);
  if (connected != Status::kOk) return connected;

  protocol::Request hello;
  hello.opcode = protocol::Opcode::kHello;
  hello.value = protocol::kProtocolVersion;
  protocol::Reply reply;
  Status status = exchange(hello, reply, deadline, false);
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

Status AgentSession::connectTo(const char* address, int32_t port, Clock::time_point deadline) {
  char service[8];
  std::snprintf(service, sizeof service, "%d", static_cast<int>(port));
  addrinfo* found = resolve(address, service, deadline, m_abandonedLookups);
  if (found == nullptr) return Status::kCannotConnect;

  for (const addrinfo* ai = found; ai != nullptr && m_fd < 0; ai = ai->ai_next) {
    const int fd = ::socket(ai->ai_family, ai->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, ai->ai_protocol);
    if (fd < 0) continue;
    int error = 0;
    socklen_t length = sizeof error;
    const bool ok = (::connect(fd, ai->ai_addr, ai->ai_addrlen) == 0 ||
                     (errno == EINPROGRESS && waitFor(fd, POLLOUT, deadline) == Status::kOk &&
                      ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0)) &&
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
  return exchange(request, reply, Clock::now() + std::chrono::milliseconds(m_timeoutMs), true);
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
  return reply.status == protocol::ReplyStatus::kOk ? Status::kOk : Status::kRefused;
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
  bool blocking = blockFirst;
  for (;;) {
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

Status AgentSession::drop(Status status) {
  ::close(m_fd);
  m_fd = -1;
  m_closedStatus = Status::kConnectionLost;
  return status;
}

}  // namespace kvx::agent
