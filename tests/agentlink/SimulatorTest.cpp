// The simulated agent as a raw client sees it: what it does with frames that the client library
// would never send, and how it starts and stops.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/TargetAgent.h"
#include "platform/protocol/AgentProtocol.h"
#include "tests/support/SimProcess.h"

namespace {

using kvx::test::SimProcess;
namespace protocol = kvx::protocol;
using Bytes = std::vector<uint8_t>;

protocol::Request request(protocol::Opcode opcode, uint64_t value, uint32_t size = 0) {
  protocol::Request made;
  made.opcode = opcode;
  made.id = 1;
  made.value = value;
  made.size = size;
  return made;
}

protocol::Request hello(uint32_t version = protocol::kProtocolVersion) {
  return request(protocol::Opcode::kHello, version);
}

protocol::Request ioRead(uint64_t address) { return request(protocol::Opcode::kIoRead, address, 8); }

Bytes encoded(const protocol::Request& request) {
  Bytes frame(protocol::kMaxFrameSize);
  frame.resize(protocol::encodeRequest(request, frame.data(), frame.size()));
  return frame;
}

/// A plain TCP connection to the simulator, every wait bounded by five seconds.
class RawConnection {
 public:
  explicit RawConnection(uint16_t port) : m_fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    timeval limit{5, 0};
    ::setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    if (::connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error(std::string("connect: ") + std::strerror(errno));
    }
  }
  ~RawConnection() { ::close(m_fd); }
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  void send(const Bytes& bytes) {
    ASSERT_EQ(::send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize_t(bytes.size()));
  }

  /// Sends `request` and decodes the one reply; false when none arrives.
  bool exchange(const protocol::Request& sent, protocol::Reply& reply) {
    send(encoded(sent));
    Bytes in(protocol::replyFrameSize(sent.opcode));
    size_t got = 0;
    while (got < in.size()) {
      const ssize_t n = ::recv(m_fd, in.data() + got, in.size() - got, 0);
      if (n <= 0) return false;
      got += size_t(n);
    }
    return protocol::decodeReply(in.data(), in.size(), reply) && reply.id == sent.id;
  }

  /// True when the simulator ends the connection (end of stream or reset) within the limit.
  bool closedByPeer() {
    uint8_t byte;
    const ssize_t n = ::recv(m_fd, &byte, 1, 0);
    return n == 0 || (n < 0 && errno == ECONNRESET);
  }

 private:
  int m_fd;
};

Bytes withByte(Bytes frame, size_t offset, uint8_t value) {
  frame[offset] = value;
  return frame;
}

TEST(SimulatorTest, MalformedFramesDropOnlyTheirOwnConnection) {
  SimProcess sim;
  protocol::Reply reply;
  ASSERT_EQ(start_session(sim.address().c_str(), sim.port()), 0);

  // Which frames the decoders refuse is the protocol test's; these reach each way the simulator
  // has of ending a connection.
  const Bytes read = encoded(ioRead(0x10));
  const auto cut = [](const Bytes& frame, size_t length) {
    return Bytes(frame.begin(), frame.begin() + length);
  };
  Bytes longRead = withByte(read, 8, protocol::kHeaderSize + 1);
  longRead.push_back(0);
  Bytes garbage(protocol::kMaxFrameSize);
  std::mt19937 random(7);
  for (uint8_t& byte : garbage) byte = static_cast<uint8_t>(random());
  garbage[0] = 'k';

  enum class Greeting { kNone, kAccepted, kRefused };
  // What becomes of the attacker's connection: the agent drops it, the attacker closes it midway,
  // or the attacker leaves it open with half a frame in the agent's buffer.
  enum class Ending { kDroppedByAgent, kClosedByClient, kLeftOpen };
  const struct {
    const char* name;
    Bytes bytes;
    Greeting greeting = Greeting::kAccepted;
    Ending ending = Ending::kDroppedByAgent;
  } cases[] = {
      {"bad magic", withByte(read, 0, 'X')},
      // Only the header is sent: the drop must not wait for a payload that never comes.
      {"length of 4 GiB", Bytes{'K', 'A', 0x04, 0, 2, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}},
      {"length over the opcode's", longRead},
      {"io size of 9", withByte(read, protocol::kHeaderSize + 8, 9)},
      {"garbage", garbage},
      {"hello with a short payload", cut(withByte(encoded(hello()), 8, 2), protocol::kHeaderSize + 2),
       Greeting::kNone},
      {"request before the handshake", read, Greeting::kNone},
      {"request after a refused handshake", read, Greeting::kRefused},
      {"header cut short, then closed", cut(read, 7), Greeting::kAccepted, Ending::kClosedByClient},
      {"frame cut short, then closed", cut(read, protocol::kHeaderSize + 5), Greeting::kAccepted,
       Ending::kClosedByClient},
      {"frame cut short, left open", cut(read, protocol::kHeaderSize + 5), Greeting::kAccepted,
       Ending::kLeftOpen},
  };
  std::vector<std::unique_ptr<RawConnection>> leftOpen;
  for (const auto& c : cases) {
    auto attacker = std::make_unique<RawConnection>(sim.port());
    if (c.greeting != Greeting::kNone) {
      const uint32_t version = protocol::kProtocolVersion + (c.greeting == Greeting::kRefused ? 1 : 0);
      ASSERT_TRUE(attacker->exchange(hello(version), reply)) << "case: " << c.name;
    }
    attacker->send(c.bytes);
    if (c.ending == Ending::kDroppedByAgent) {
      EXPECT_TRUE(attacker->closedByPeer()) << "case: " << c.name;
    }
    if (c.ending == Ending::kLeftOpen) leftOpen.push_back(std::move(attacker));
    attacker.reset();

    // The others are still served.
    EXPECT_EQ(io_write(0x10, 0x42, 1), 0) << "case: " << c.name;
  }
  // And new clients as well.
  RawConnection newcomer(sim.port());
  EXPECT_TRUE(newcomer.exchange(hello(), reply));
  EXPECT_EQ(reply.status, protocol::ReplyStatus::kOk);
  destroy_session();
}

TEST(SimulatorTest, HandshakeWithAnotherVersionIsRefusedButTheConnectionMayRetry) {
  SimProcess sim;
  RawConnection client(sim.port());
  protocol::Reply reply;
  ASSERT_TRUE(client.exchange(hello(protocol::kProtocolVersion + 1), reply));
  EXPECT_EQ(reply.status, protocol::ReplyStatus::kVersionMismatch);
  EXPECT_EQ(reply.value, protocol::kProtocolVersion) << "the agent says what it speaks";
  ASSERT_TRUE(client.exchange(hello(), reply));
  EXPECT_EQ(reply.status, protocol::ReplyStatus::kOk);
  EXPECT_TRUE(client.exchange(ioRead(0), reply));
}

TEST(SimulatorTest, SignalsStopTheSimulatorCleanly) {
  SimProcess interrupted;
  RawConnection client(interrupted.port());
  ASSERT_EQ(::kill(interrupted.pid(), SIGINT), 0);
  EXPECT_EQ(interrupted.stop(), 0);
  EXPECT_TRUE(client.closedByPeer());

  SimProcess terminated;
  EXPECT_EQ(terminated.stop(), 0);
}

TEST(SimulatorTest, BadCommandLinesStopTheSimulatorBeforeItListens) {
  const std::vector<std::vector<std::string>> commandLines = {
      {"--port", "65536"},        {"--deny", "0x1000"},         {"--memory-limit", "12k"},
      {"--reserve-base", "0x81"}, {"--bind", "not-an-address"}, {"--no-such-option"},
  };
  for (const auto& arguments : commandLines) {
    EXPECT_THROW(SimProcess{arguments}, std::runtime_error) << arguments[0] << ' ' << arguments.back();
  }
}

}  // namespace
