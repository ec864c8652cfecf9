#include "sim/Connection.h"

#include <sched.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/write.hpp>

#include "sim/RequestHandler.h"

namespace kvx::sim {

namespace {

std::string describe(const boost::asio::ip::tcp::endpoint& endpoint) {
  std::ostringstream text;
  text << endpoint;
  return text.str();
}

}  // namespace

Connection::Connection(boost::asio::ip::tcp::socket socket, RequestHandler& handler, Sessions& sessions,
                       const SimOptions& options, const Log& log)
    : m_socket(std::move(socket)),
      m_handler(handler),
      m_sessions(sessions),
      m_options(options),
      m_log(log),
      m_delay(m_socket.get_executor()) {
  boost::system::error_code error;
  const auto peer = m_socket.remote_endpoint(error);
  m_peer = error ? "unknown peer" : describe(peer);
}

Connection::~Connection() { m_sessions.leave(m_client); }

void Connection::start() {
  m_log.line("connection from ", m_peer);
  m_client = m_sessions.join(
      [weak = weak_from_this()] {
        if (const auto connection = weak.lock()) connection->drop("session given to another client");
      },
      [weak = weak_from_this()] {
        if (const auto connection = weak.lock()) connection->readPendingEnd();
      });
  if (m_options.dropAfter && *m_options.dropAfter == 0) {
    drop("dropped after 0 requests");
    return;
  }
  // Replies are written straight from the read handler (see sendReply); a non-blocking socket
  // makes such a write report would_block instead of stalling every other client.
  boost::system::error_code error;
  m_socket.non_blocking(true, error);
  if (error) {
    drop("cannot make the socket non-blocking: " + error.message());
    return;
  }
  doRead();
}

void Connection::doRead() {
  auto self = shared_from_this();
  m_socket.async_read_some(boost::asio::buffer(m_buffer.data() + m_used, m_buffer.size() - m_used),
                           [this, self](const boost::system::error_code& error, size_t length) {
                             if (error) {
                               if (error == boost::asio::error::eof) {
                                 m_log.line(m_peer, ": closed by the client");
                               } else if (error != boost::asio::error::operation_aborted) {
                                 m_log.line(m_peer, ": read failed: ", error.message());
                               }
                               return;
                             }
                             m_used += length;
                             noteArrival();
                             processBuffer();
                           });
}

void Connection::noteArrival() {
  const Clock::duration gap = Clock::now() - m_lastReply;
  // It came through the event loop, yet within a poll's reach: a poll would have found it.
  if (!m_polled && gap < kBurstGap) m_spin.wouldHavePaid();
  m_inBurst = gap < kBurstWindow;
}

void Connection::processBuffer() {
  for (;;) {
    protocol::FrameHeader header;
    if (m_used < protocol::kHeaderSize) break;
    if (!protocol::decodeHeader(m_buffer.data(), m_used, header)) {
      // Checked before waiting for the payload: an oversized length is never buffered.
      drop("malformed frame header");
      return;
    }
    const size_t frameSize = protocol::kHeaderSize + header.payloadLength;
    if (m_used < frameSize) break;

    protocol::Request request;
    if (!protocol::decodeRequest(m_buffer.data(), frameSize, request)) {
      std::ostringstream reason;
      reason << "malformed frame with opcode 0x" << std::hex << unsigned{header.opcode} << " ("
             << protocol::opcodeName(header.opcode) << ')';
      drop(reason.str());
      return;
    }
    std::memmove(m_buffer.data(), m_buffer.data() + frameSize, m_used - frameSize);
    m_used -= frameSize;

    if (request.opcode == protocol::Opcode::kGoodbye) {
      m_log.line(m_peer, ": goodbye");
      return;
    }
    if (!m_greeted && request.opcode != protocol::Opcode::kHello) {
      drop(std::string(protocol::opcodeName(header.opcode)) + " before the handshake");
      return;
    }
    if (request.opcode == protocol::Opcode::kEndSession) {
      if (!m_parked) m_log.line(m_peer, ": session ended, connection kept");
      m_sessions.end(m_client);
      m_parked = true;
      continue;
    }
    if (m_options.hangAfter && m_answered >= *m_options.hangAfter) {
      if (!m_hanging) m_log.line(m_peer, ": hanging after ", m_answered, " requests");
      m_hanging = true;
      continue;
    }

    protocol::Reply reply;
    answer(request, reply);
    const size_t length = protocol::encodeReply(reply, m_reply.data(), m_reply.size());
    if (m_options.latency.count() > 0) {
      delayReply(length);
      return;
    }
    if (!sendReply(length)) return;
    if (m_used < protocol::kHeaderSize && !awaitNextRequest()) break;
  }
  doRead();
}

void Connection::answer(const protocol::Request& request, protocol::Reply& reply) {
  if (request.opcode == protocol::Opcode::kHello) {
    m_handler.handle(request, reply);
    if (reply.status == protocol::ReplyStatus::kOk && !m_sessions.open(m_client)) {
      reply.status = protocol::ReplyStatus::kBusy;
    }
    m_greeted = reply.status == protocol::ReplyStatus::kOk;
    if (!m_greeted) m_log.line(m_peer, ": handshake refused: ", protocol::statusName(reply.status));
    m_parked = m_parked && !m_greeted;
    return;
  }
  if (m_parked) {
    if (!m_sessions.open(m_client)) {
      reply = protocol::Reply();
      reply.opcode = request.opcode;
      reply.id = request.id;
      reply.status = protocol::ReplyStatus::kBusy;
      return;
    }
    m_parked = false;
    m_log.line(m_peer, ": session resumed");
  }
  m_handler.handle(request, reply);
}

void Connection::readPendingEnd() {
  // Only a frame that starts the socket's bytes: a partial one buffered here is a request.
  if (m_used != 0 || !m_socket.is_open()) return;
  uint8_t header[protocol::kHeaderSize];
  const int fd = m_socket.native_handle();
  const ssize_t peeked = ::recv(fd, header, sizeof header, MSG_PEEK | MSG_DONTWAIT);
  protocol::FrameHeader frame;
  if (peeked != static_cast<ssize_t>(sizeof header) ||
      !protocol::decodeHeader(header, sizeof header, frame) || frame.payloadLength != 0 ||
      (frame.opcode != uint8_t(protocol::Opcode::kEndSession) &&
       frame.opcode != uint8_t(protocol::Opcode::kGoodbye))) {
    return;
  }
  // Consumed here; the read that is pending finds what follows, if anything. After a Goodbye that
  // is the end of the stream, or the agent closing the parked connection first.
  (void)::recv(fd, header, sizeof header, MSG_DONTWAIT);
  const bool goodbye = frame.opcode == uint8_t(protocol::Opcode::kGoodbye);
  m_log.line(m_peer, goodbye ? ": goodbye" : ": session ended, connection kept");
  m_sessions.end(m_client);
  m_parked = true;
}

void Connection::delayReply(size_t length) {
  // A timer, not a sleep: the other clients are served meanwhile.
  auto self = shared_from_this();
  m_delay.expires_after(m_options.latency);
  m_delay.async_wait([this, self, length](const boost::system::error_code& error) {
    if (!error && sendReply(length)) processBuffer();
  });
}

bool Connection::awaitNextRequest() {
  m_polled = m_options.spin && m_inBurst && m_spin.shouldPoll();
  if (!m_polled) return false;
  const Clock::time_point end = m_lastReply + kBurstGap;
  do {
    boost::system::error_code error;
    const size_t got =
        m_socket.read_some(boost::asio::buffer(m_buffer.data() + m_used, m_buffer.size() - m_used), error);
    // Anything but "nothing yet", an end of stream included, is for the event loop to handle.
    if (error != boost::asio::error::would_block) {
      m_used += got;
      m_spin.paidOff();
      return got > 0 && !error;
    }
    // A client on this CPU gets it at once, instead of when the server is preempted.
    ::sched_yield();
  } while (Clock::now() < end);
  m_spin.cameUpEmpty();
  return false;
}

bool Connection::sendReply(size_t length) {
  ++m_answered;
  // A reply is a few dozen bytes and the client waits for it before sending more, so the socket
  // almost always takes it whole, here. That saves the trip through the event loop an
  // asynchronous write would take: its completion handler and an extra epoll_wait per request.
  boost::system::error_code error;
  const size_t sent = m_socket.write_some(boost::asio::buffer(m_reply.data(), length), error);
  if (error == boost::asio::error::would_block || error == boost::asio::error::interrupted ||
      (!error && sent < length)) {
    doWrite(error ? 0 : sent, length);
    return false;
  }
  if (error) {
    m_log.line(m_peer, ": write failed: ", error.message());
    return false;
  }
  m_lastReply = Clock::now();
  return !dropIfDone();
}

void Connection::doWrite(size_t sent, size_t length) {
  auto self = shared_from_this();
  boost::asio::async_write(m_socket, boost::asio::buffer(m_reply.data() + sent, length - sent),
                           [this, self](const boost::system::error_code& error, size_t) {
                             if (error) {
                               if (error != boost::asio::error::operation_aborted) {
                                 m_log.line(m_peer, ": write failed: ", error.message());
                               }
                               return;
                             }
                             if (!dropIfDone()) processBuffer();
                           });
}

bool Connection::dropIfDone() {
  if (!m_options.dropAfter || m_answered < *m_options.dropAfter) return false;
  std::ostringstream reason;
  reason << "dropped after " << m_answered << " requests";
  drop(reason.str());
  return true;
}

void Connection::drop(const std::string& reason) {
  m_log.line(m_peer, ": ", reason);
  boost::system::error_code ignored;
  m_socket.shutdown(boost::asio::ip::tcp::socket::shutdown_both, ignored);
  m_socket.close(ignored);
}

}  // namespace kvx::sim
