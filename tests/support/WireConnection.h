// One TCP connection that carries agent-protocol frames as they are, for the tests and benchmarks
// that need the wire itself: the floor of a round trip, frames the client library would never
// send, an agent played by the test. It checks nothing the caller does not ask for. Every wait is
// bounded by five seconds, so a peer that falls silent fails a call instead of hanging it.
//
// Each instance owns its socket. Not thread-safe, except that one thread may send while another
// receives.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "common/Endpoint.h"
#include "platform/protocol/AgentProtocol.h"

namespace kvx::test {

using Frame = std::vector<uint8_t>;

class WireConnection {
 public:
  /// Connects to `endpoint`, a numeric IPv4 or IPv6 address, with TCP_NODELAY. Throws
  /// std::runtime_error when nothing accepts the connection.
  explicit WireConnection(const common::Endpoint& endpoint);
  /// Takes over a connected socket, such as one a test's listener accepted; every wait on it is
  /// bounded by `limit`.
  explicit WireConnection(int fd, std::chrono::milliseconds limit = std::chrono::seconds(5));
  ~WireConnection();

  WireConnection(const WireConnection&) = delete;
  WireConnection& operator=(const WireConnection&) = delete;

  /// Sends `size` bytes whole; false when the peer no longer takes them.
  bool send(const uint8_t* bytes, size_t size);
  bool send(const Frame& bytes) { return send(bytes.data(), bytes.size()); }
  /// Receives exactly `size` bytes; false on end of stream, an error or the time limit.
  bool receive(uint8_t* bytes, size_t size);
  /// Whether the last receive failed for want of time rather than for an end or an error.
  bool timedOut() const { return m_timedOut; }
  /// Receives one frame: a header, then as many bytes as it announces. False as receive() is, or
  /// when the header is malformed.
  bool receiveFrame(Frame& frame);
  /// Sends `request` and decodes what comes back; false unless it is the reply to the request.
  bool transact(const protocol::Request& request, protocol::Reply& reply);
  /// True when the peer ends the connection, by end of stream or reset, within the time limit.
  bool closedByPeer();
  /// Closes the connection: with `reset`, the harshest way (end of stream, then a reset), so the
  /// peer's socket is broken while it is not looking.
  void close(bool reset = false);

 private:
  int m_fd = -1;
  bool m_timedOut = false;
};

/// A listening socket on a free loopback port, for a test that plays the agent.
class WireListener {
 public:
  /// Throws std::runtime_error when it cannot listen.
  WireListener();
  ~WireListener();

  WireListener(const WireListener&) = delete;
  WireListener& operator=(const WireListener&) = delete;

  int port() const { return m_port; }
  /// The next connection; the accepted socket, or -1 when none came within the time limit.
  int accept();

 private:
  int m_fd = -1;
  int m_port = 0;
};

/// `request` as one frame.
Frame encoded(const protocol::Request& request);
/// `reply` as one frame, for a test that plays the agent.
Frame encoded(const protocol::Reply& reply);

}  // namespace kvx::test
