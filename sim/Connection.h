// One client of the simulated agent: owns the socket, a buffer of at most one frame and the
// connection's handshake and fault-injection state.
//
// A client that is in a burst (its request came back within kBurstWindow of the last reply) is
// polled for its next request for up to kBurstGap after each reply, before the server goes back
// to waiting in the event loop: waking a server that sleeps on another CPU costs more than the
// whole exchange. A poll that ends empty-handed makes the next replies skip polling
// (common::SpinBackoff), so a client that talks to many other agents in between soon costs
// nothing; a request that comes within kBurstGap while nobody polled starts polling again, so a
// host that alternates between a few agents stays polled through a miss. The window is wider than
// the poll because a server that slept sees a request late, by its own wake-up. The polling costs
// at most kBurstGap of CPU per reply and happens only in a burst, so an idle client costs nothing;
// other clients wait that long at most. --no-spin turns it off.
//
// Kept alive by its pending asynchronous operations (shared_from_this); it closes its socket
// when the last one finishes.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include "common/SpinBackoff.h"
#include "platform/protocol/AgentProtocol.h"
#include "sim/Log.h"
#include "sim/Sessions.h"
#include "sim/SimOptions.h"

namespace kvx::sim {

class RequestHandler;

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  /// `handler`, `sessions`, `options` and `log` must outlive the connection.
  Connection(boost::asio::ip::tcp::socket socket, RequestHandler& handler, Sessions& sessions,
             const SimOptions& options, const Log& log);
  /// Ends the client's session, if it has one.
  ~Connection();

  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Starts serving; returns at once.
  void start();

 private:
  /// Reads more bytes after the m_used already buffered.
  void doRead();
  /// Answers the frames complete in the buffer, then reads or writes as the protocol needs.
  void processBuffer();
  /// Sends the first `length` bytes of m_reply. True when the reply is out and the caller may go
  /// on with the next frame; false when an asynchronous write carries on with it or the
  /// connection is ending.
  bool sendReply(size_t length);
  /// Sends m_reply's bytes from `sent` to `length` asynchronously, then goes on with the buffer.
  void doWrite(size_t sent, size_t length);
  /// Sends the first `length` bytes of m_reply after the --latency-us delay, then goes on.
  void delayReply(size_t length);
  /// Notes a request that came through the event loop: whether the client is in a burst, and
  /// whether a poll would have caught it.
  void noteArrival();
  /// In a burst, polls the socket for the next request for up to kBurstGap; true when bytes came.
  bool awaitNextRequest();
  /// Drops the connection when --drop-after is reached; true when it did.
  bool dropIfDone();
  /// For Sessions: when the socket holds an EndSession or a Goodbye that has not been read yet,
  /// and nothing before it, reads it and ends the session now.
  void readPendingEnd();
  /// Ends the connection with a log line; nothing is sent.
  void drop(const std::string& reason);
  /// The request's reply, or a refusal as busy when the session that a parked connection would
  /// resume has been given to another client.
  void answer(const protocol::Request& request, protocol::Reply& reply);

  boost::asio::ip::tcp::socket m_socket;
  RequestHandler& m_handler;
  Sessions& m_sessions;
  const SimOptions& m_options;
  const Log& m_log;
  std::string m_peer;  ///< "address:port", for the log

  // Invariant: m_buffer holds m_used bytes of at most one incomplete frame when a read is
  // issued, so a buffer of one maximal frame always has room for the rest of it.
  std::array<uint8_t, protocol::kMaxFrameSize> m_buffer{};
  size_t m_used = 0;
  std::array<uint8_t, protocol::kMaxFrameSize> m_reply{};

  Sessions::ClientId m_client = 0;
  bool m_greeted = false;   ///< a Hello has been accepted
  bool m_parked = false;    ///< the client ended its session and keeps the connection
  uint64_t m_answered = 0;  ///< replies sent, the handshake's included
  bool m_hanging = false;   ///< --hang-after reached: requests are read and ignored

  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::microseconds kBurstGap{50};
  static constexpr std::chrono::microseconds kBurstWindow{4 * kBurstGap};
  boost::asio::steady_timer m_delay;
  Clock::time_point m_lastReply;  ///< when the last reply went out
  bool m_inBurst = false;         ///< the last request came within kBurstWindow of the reply before
  bool m_polled = false;          ///< the client was polled for its next request after the last reply
  common::SpinBackoff m_spin;     ///< whether the next reply is followed by polling
};

}  // namespace kvx::sim
