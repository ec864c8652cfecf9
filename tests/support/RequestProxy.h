// A proxy between an agent library and an agent that records every request it passes on: how a
// test counts what reached the agent (one IoRead for one read, one RegRead per register, accesses
// of the width asked for). It listens on a free loopback port, and forwards each connection to
// the agent, frame by frame, replies untouched.
//
// Owns its threads; the destructor ends every connection. requests() and connections() may be
// called from any thread.
#pragma once

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "common/Endpoint.h"
#include "platform/protocol/AgentProtocol.h"

namespace kvx::test {

class RequestProxy {
 public:
  /// Proxies to the agent at `agent`, a numeric address. Throws std::runtime_error when it cannot
  /// listen.
  explicit RequestProxy(common::Endpoint agent);
  ~RequestProxy();

  RequestProxy(const RequestProxy&) = delete;
  RequestProxy& operator=(const RequestProxy&) = delete;

  /// Where the proxy listens.
  common::Endpoint endpoint() const { return {"127.0.0.1", m_port}; }
  /// Every request passed on so far, of every connection, in the order they came.
  std::vector<protocol::Request> requests() const;
  /// Those of them with `opcode`.
  std::vector<protocol::Request> requests(protocol::Opcode opcode) const;
  /// The connections accepted so far.
  size_t connections() const;

 private:
  void acceptLoop();
  void forward(int client);

  common::Endpoint m_agent;
  int m_listener = -1;
  int m_port = 0;
  std::atomic<bool> m_stopping{false};
  mutable std::mutex m_mutex;
  /// Guarded by m_mutex.
  std::vector<protocol::Request> m_requests;
  std::vector<int> m_sockets;
  std::vector<std::thread> m_forwarders;
  size_t m_connections = 0;
  std::thread m_acceptor;
};

}  // namespace kvx::test
