// A simulator connection against a client that pipelines requests and reads no reply until the
// connection has had to hold replies back for it.

#include "sim/Connection.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <thread>

#include <boost/asio/io_context.hpp>

#include "sim/RequestHandler.h"
#include "tests/support/WireConnection.h"

namespace kvx::sim {
namespace {

using boost::asio::ip::tcp;

TEST(ConnectionTest, RepliesTheSocketCannotTakeAtOnceFollowWholeAndInOrder) {
  // Outlives the io_context, which holds the connection until it is destroyed.
  Sessions sessions(false);
  boost::asio::io_context io;
  tcp::acceptor acceptor(io, tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0));
  test::WireConnection client(common::Endpoint{"127.0.0.1", acceptor.local_endpoint().port()});
  tcp::socket socket = acceptor.accept();
  // Far less room than the replies need, so that most of them wait for the client to read.
  socket.set_option(tcp::socket::send_buffer_size(4096));
  const SimOptions options;
  RequestHandler handler(options);
  const Log quiet(true);
  std::make_shared<Connection>(std::move(socket), handler, sessions, options, quiet)->start();

  // A handshake (id 0), then reads with ids 1 to kReads, all in one send on another thread.
  constexpr uint32_t kReads = 20000;
  protocol::Request request;
  request.value = protocol::kProtocolVersion;
  test::Frame requests = test::encoded(request);
  request.opcode = protocol::Opcode::kIoRead;
  for (request.id = 1; request.id <= kReads; ++request.id) {
    for (const uint8_t byte : test::encoded(request)) requests.push_back(byte);
  }
  auto sent = std::async(std::launch::async, [&] { return client.send(requests); });
  // Serves until the connection waits for the client (or has nothing left to do), then reads.
  while (io.run_one_for(std::chrono::milliseconds(200)) != 0) continue;
  std::thread serving([&io] { io.run(); });
  uint32_t answered = 0;
  test::Frame frame;
  protocol::Reply reply;
  while (answered <= kReads && client.receiveFrame(frame) &&
         protocol::decodeReply(frame.data(), frame.size(), reply) && reply.id == answered &&
         reply.status == protocol::ReplyStatus::kOk) {
    ++answered;
  }
  io.stop();
  serving.join();
  EXPECT_TRUE(sent.get());
  EXPECT_EQ(answered, kReads + 1) << "a reply missing, cut or out of order after " << answered;
}

}  // namespace
}  // namespace kvx::sim
