#include "tests/support/RequestProxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "tests/support/WireConnection.h"

namespace kvx::test {

RequestProxy::RequestProxy(common::Endpoint agent) : m_agent(std::move(agent)) {
  m_listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (m_listener < 0 || ::bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(m_listener, 16) != 0 ||
      ::getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::runtime_error(std::string("cannot listen on loopback: ") + std::strerror(errno));
  }
  m_port = ntohs(address.sin_port);
  m_acceptor = std::thread(&RequestProxy::acceptLoop, this);
}

RequestProxy::~RequestProxy() {
  m_stopping = true;
  // A shut-down socket wakes whoever waits on it: the acceptor, and both ends of each forwarder.
  ::shutdown(m_listener, SHUT_RDWR);
  m_acceptor.join();
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (int fd : m_sockets) ::shutdown(fd, SHUT_RDWR);
  }
  for (std::thread& forwarder : m_forwarders) forwarder.join();
  ::close(m_listener);
}

std::vector<protocol::Request> RequestProxy::requests() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_requests;
}

std::vector<protocol::Request> RequestProxy::requests(protocol::Opcode opcode) const {
  std::vector<protocol::Request> matching;
  for (const protocol::Request& request : requests()) {
    if (request.opcode == opcode) matching.push_back(request);
  }
  return matching;
}

size_t RequestProxy::connections() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_connections;
}

void RequestProxy::acceptLoop() {
  while (!m_stopping) {
    const int client = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) {
      if (errno == EINTR) continue;
      return;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_connections;
    m_forwarders.emplace_back(&RequestProxy::forward, this, client);
  }
}

void RequestProxy::forward(int client) {
  // The agent library sends one request and waits for its reply, so the frames alternate.
  WireConnection in(client, std::chrono::seconds(60));
  std::unique_ptr<WireConnection> out;
  try {
    out = std::make_unique<WireConnection>(m_agent);
  } catch (const std::runtime_error&) {
    return;  // no agent: the client sees its connection closed
  }
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_sockets.push_back(client);
  }
  // Forgotten before `in` closes it, so that the destructor never shuts down a reused descriptor.
  struct Forget {
    RequestProxy& proxy;
    int fd;
    ~Forget() {
      std::lock_guard<std::mutex> lock(proxy.m_mutex);
      proxy.m_sockets.erase(std::find(proxy.m_sockets.begin(), proxy.m_sockets.end(), fd));
    }
  } forget{*this, client};
  Frame request;
  Frame reply;
  while (!m_stopping && in.receiveFrame(request)) {
    protocol::Request decoded;
    if (protocol::decodeRequest(request.data(), request.size(), decoded)) {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_requests.push_back(decoded);
    }
    if (!out->send(request)) return;
    if (decoded.opcode == protocol::Opcode::kGoodbye) return;
    if (!out->receiveFrame(reply) || !in.send(reply)) return;
  }
}

}  // namespace kvx::test
