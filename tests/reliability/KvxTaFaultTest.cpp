// kvx-ta, the command-line host, when its agent dies and comes back in the middle of one
// `script` session. The other faults (an agent killed, silent, dropping, refusing or absent) and
// their exit statuses are covered by the kvx-ta tests; this adds what a script sees of a
// restart: kvx-ta keeps its one session, so the access after the restart fails with the
// plug-in's message and exit status 1, and only the next run reaches the new agent.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "agent/TargetAgent.h"
#include "tests/cli/ProgramRun.h"
#include "tests/support/SimProcess.h"

namespace kvx::test {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr int kFailure = 1;
constexpr milliseconds kPatience{10000};

/// The write end of a named pipe that kvx-ta reads its script from, one line at a time.
class ScriptPipe {
 public:
  explicit ScriptPipe(std::string path) : m_path(std::move(path)) {
    if (::mkfifo(m_path.c_str(), 0600) != 0) throw std::runtime_error("mkfifo " + m_path);
  }
  ~ScriptPipe() {
    if (m_fd >= 0) ::close(m_fd);
    ::unlink(m_path.c_str());
  }
  ScriptPipe(const ScriptPipe&) = delete;
  ScriptPipe& operator=(const ScriptPipe&) = delete;

  const std::string& path() const { return m_path; }

  /// Opens the pipe once the reader has; false if none comes within kPatience.
  bool open() {
    const Clock::time_point end = Clock::now() + kPatience;
    while ((m_fd = ::open(m_path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) < 0) {
      if (errno != ENXIO || Clock::now() > end) return false;
      std::this_thread::sleep_for(milliseconds(5));
    }
    return true;
  }

  bool send(const std::string& line) {
    const std::string text = line + "\n";
    return ::write(m_fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  }

  /// End of the script.
  void close() {
    ::close(m_fd);
    m_fd = -1;
  }

 private:
  std::string m_path;
  int m_fd = -1;
};

/// The 8 bytes at `address` of the agent at `sim`, read through a session of this process.
bool agentHolds(const SimProcess& sim, uint64_t address, uint64_t expected) {
  uint64_t value = 0;
  const bool read = start_session(sim.address().c_str(), sim.port()) == 0 &&
                    io_read(address, reinterpret_cast<uint8_t*>(&value), 8) == 0;
  destroy_session();
  return read && value == expected;
}

TEST(KvxTaFaultTest, ScriptFailsAtTheFirstAccessAfterARestartAndTheNextRunReachesTheNewAgent) {
  ScriptPipe script(::testing::TempDir() + "kvx-ta-restart-" + std::to_string(::getpid()));
  auto sim = std::make_unique<SimProcess>(std::vector<std::string>{"--quiet"});
  const uint16_t port = sim->port();
  const std::string server = sim->address() + ":" + std::to_string(port);

  ProgramRun run;
  run.arguments = {"--server", server, "script", script.path()};
  run.environment = {"TA_AGENT_TIMEOUT_MS=300"};
  auto running = std::async(std::launch::async, [&run] { return runProgram(KVX_TA_PATH, run); });
  ASSERT_TRUE(script.open()) << "kvx-ta never opened its script";
  ASSERT_TRUE(script.send("write 0x10 0x2a 8"));
  const Clock::time_point end = Clock::now() + kPatience;
  while (!agentHolds(*sim, 0x10, 0x2a) && Clock::now() < end) std::this_thread::sleep_for(milliseconds(5));
  ASSERT_TRUE(agentHolds(*sim, 0x10, 0x2a)) << "the first line never reached the agent";

  sim->kill();
  sim.reset();
  for (int attempt = 0; attempt < 20 && !sim; ++attempt) {
    try {
      sim = std::make_unique<SimProcess>(std::vector<std::string>{"--quiet", "--port", std::to_string(port)});
    } catch (const std::runtime_error&) {
      std::this_thread::sleep_for(milliseconds(100));
    }
  }
  if (!sim) {
    script.close();
    GTEST_SKIP() << "port " << port << " could not be bound again within two seconds";
  }

  ASSERT_TRUE(script.send("read 0x10 8"));
  script.close();
  const ProgramResult result = running.get();
  EXPECT_EQ(result.exitCode, kFailure) << result;
  EXPECT_EQ(result.err.rfind("kvx-ta: script:2: Cannot read address 10 with memory space logger", 0), 0u)
      << result;
  EXPECT_EQ(result.out, "") << result;

  // A new run is a new host process with a new session: it reaches the restarted agent.
  ProgramRun next;
  next.arguments = {"--server", server, "read", "0x10", "8"};
  const ProgramResult fresh = runProgram(KVX_TA_PATH, next);
  EXPECT_EQ(fresh.exitCode, 0) << fresh;
  EXPECT_EQ(fresh.out, "0x0000000000000000\n") << "a restarted agent starts with empty memory\n" << fresh;
}

}  // namespace
}  // namespace kvx::test
