#include "tests/support/WireConnection.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace kvx::test {
namespace {

bool limitWaits(int fd, std::chrono::milliseconds limit = std::chrono::seconds(5)) {
  const timeval tv{static_cast<time_t>(limit.count() / 1000),
                   static_cast<suseconds_t>(limit.count() % 1000 * 1000)};
  return ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) == 0 &&
         ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv) == 0;
}

}  // namespace

WireConnection::WireConnection(const common::Endpoint& endpoint) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  if (::getaddrinfo(endpoint.host.c_str(), std::to_string(endpoint.port).c_str(), &hints, &found) != 0) {
    throw std::runtime_error("not a numeric address: " + endpoint.host);
  }
  m_fd = ::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  const bool connected = m_fd >= 0 && limitWaits(m_fd) &&
                         ::connect(m_fd, found->ai_addr, found->ai_addrlen) == 0 &&
                         ::setsockopt(m_fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0;
  const int error = errno;
  ::freeaddrinfo(found);
  if (!connected) {
    close();
    throw std::runtime_error("cannot connect to " + endpoint.text() + ": " + std::strerror(error));
  }
}

WireConnection::WireConnection(int fd, std::chrono::milliseconds limit) : m_fd(fd) {
  // A socket from a dialer may be non-blocking; the limits below bound its waits instead.
  ::fcntl(m_fd, F_SETFL, ::fcntl(m_fd, F_GETFL) & ~O_NONBLOCK);
  limitWaits(m_fd, limit);
}

WireConnection::~WireConnection() { close(); }

bool WireConnection::send(const uint8_t* bytes, size_t size) {
  return m_fd >= 0 && ::send(m_fd, bytes, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

bool WireConnection::receive(uint8_t* bytes, size_t size) {
  m_timedOut = false;
  for (size_t got = 0; got < size;) {
    const ssize_t n = ::recv(m_fd, bytes + got, size - got, 0);
    if (n < 0 && errno == EINTR) continue;
    m_timedOut = n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    if (n <= 0) return false;
    got += static_cast<size_t>(n);
  }
  return true;
}

bool WireConnection::receiveFrame(Frame& frame) {
  frame.resize(protocol::kHeaderSize);
  protocol::FrameHeader header;
  if (!receive(frame.data(), frame.size()) || !protocol::decodeHeader(frame.data(), frame.size(), header)) {
    return false;
  }
  frame.resize(protocol::kHeaderSize + header.payloadLength);
  return receive(frame.data() + protocol::kHeaderSize, header.payloadLength);
}

bool WireConnection::transact(const protocol::Request& request, protocol::Reply& reply) {
  Frame in;
  return send(encoded(request)) && receiveFrame(in) && protocol::decodeReply(in.data(), in.size(), reply) &&
         reply.id == request.id && reply.opcode == request.opcode;
}

bool WireConnection::closedByPeer() {
  uint8_t byte;
  const ssize_t n = ::recv(m_fd, &byte, 1, 0);
  return n == 0 || (n < 0 && errno == ECONNRESET);
}

void WireConnection::close(bool reset) {
  if (m_fd < 0) return;
  if (reset) {
    ::shutdown(m_fd, SHUT_WR);
    const linger abortive{1, 0};
    ::setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
  }
  ::close(m_fd);
  m_fd = -1;
}

WireListener::WireListener() : m_fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (m_fd < 0 || !limitWaits(m_fd) ||
      ::bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(m_fd, 4) != 0 ||
      ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::runtime_error(std::string("cannot listen on loopback: ") + std::strerror(errno));
  }
  m_port = ntohs(address.sin_port);
}

WireListener::~WireListener() { ::close(m_fd); }

int WireListener::accept() { return ::accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC); }

Frame encoded(const protocol::Request& request) {
  Frame frame(protocol::kMaxFrameSize);
  frame.resize(protocol::encodeRequest(request, frame.data(), frame.size()));
  return frame;
}

Frame encoded(const protocol::Reply& reply) {
  Frame frame(protocol::kMaxFrameSize);
  frame.resize(protocol::encodeReply(reply, frame.data(), frame.size()));
  return frame;
}

}  // namespace kvx::test
