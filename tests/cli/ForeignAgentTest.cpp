// kvx-ta with another libtarget.agent.so beside the plug-in, as when the real closed library is
// dropped in: a copy of the installed layout (bin/kvx-ta, lib/ with the plug-in, the host
// framework stand-in and the foreign agent library), against an agent played by the test that
// speaks the foreign library's wire and records every byte it receives.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <future>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/ChildProcess.h"

namespace kvx::test {
namespace {

namespace fs = std::filesystem;

/// The foreign library's agent: answers "hello" with "ok", a read of 0xdead0010 with status 7,
/// and any other read with zeros. Serves one connection, then reports what it received.
class LineAgent {
 public:
  LineAgent() : m_listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::listen(m_listener, 4);
    ::getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length);
    m_port = ntohs(address.sin_port);
    m_served = std::async(std::launch::async, [this] { return serve(); });
  }
  ~LineAgent() { ::close(m_listener); }

  int port() const { return m_port; }
  /// Every byte of the one connection, and how many connections came in all, once the client is
  /// done.
  std::pair<std::string, int> received() {
    std::string bytes = m_served.get();
    // Any further connection is waiting in the backlog by now.
    timeval none{0, 200 * 1000};
    ::setsockopt(m_listener, SOL_SOCKET, SO_RCVTIMEO, &none, sizeof none);
    int more = 0;
    for (int fd; (fd = ::accept(m_listener, nullptr, nullptr)) >= 0; ++more) ::close(fd);
    return {bytes, 1 + more};
  }

 private:
  std::string serve() {
    const int fd = ::accept(m_listener, nullptr, nullptr);
    std::string all;
    std::string line;
    for (char c; ::recv(fd, &c, 1, 0) == 1;) {
      all += c;
      if (c != '\n') {
        line += c;
        continue;
      }
      const std::string reply = line == "read dead0010 4" ? "no 7\n" : "ok 0\n";
      ::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
      line.clear();
    }
    ::close(fd);
    return all;
  }

  int m_listener;
  int m_port = 0;
  std::future<std::string> m_served;
};

TEST(ForeignAgentTest, ARefusedReadNamesTheCallAndItsStatusAndSendsNothingElse) {
  const fs::path root = fs::path(::testing::TempDir()) / ("kvx-ta-foreign-" + std::to_string(::getpid()));
  fs::create_directories(root / "bin");
  fs::create_directories(root / "lib");
  fs::copy_file(KVX_TA_PATH, root / "bin/kvx-ta");
  for (const char* library : {"libta_kvx.so", "libvorn_host.so"}) {
    fs::copy_file(fs::path(TA_KVX_LIB_DIR) / library, root / "lib" / library);
  }
  fs::copy_file(FOREIGN_AGENT_PATH, root / "lib/libtarget.agent.so");

  LineAgent agent;
  const ProgramResult result =
      runProgram({(root / "bin/kvx-ta").string(), "--server", "127.0.0.1:" + std::to_string(agent.port()),
                  "read", "0xdead0010"});
  const auto [bytes, connections] = agent.received();
  fs::remove_all(root);

  EXPECT_TRUE(result.exitCode == 1 &&
              result.err ==
                  "kvx-ta: cannot read 4 bytes at 0xdead0010: io_read failed with status 7 (the agent "
                  "library '" +
                      (root / "lib/libtarget.agent.so").string() +
                      "' is not the one this program was built with, so its statuses are not "
                      "interpreted)\n")
      << result;
  EXPECT_EQ(bytes, "hello\nread dead0010 4\n");
  EXPECT_EQ(connections, 1);
}

}  // namespace
}  // namespace kvx::test
