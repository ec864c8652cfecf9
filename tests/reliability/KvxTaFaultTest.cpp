// kvx-ta, the command-line host, when its agent dies and comes back in the middle of one
// `script` session. The other faults and their exit statuses are in the kvx-ta tests; this adds
// what a script sees of a restart: kvx-ta keeps its one session, so the access after the restart
// fails with the plug-in's message and exit status 1, and only the next run reaches the new agent.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "agent/TargetAgent.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/SimProcess.h"

namespace kvx::test {
namespace {

/// Whether the agent at `sim` holds `expected` in the 8 bytes at `address`, read through a
/// session of this process.
bool agentHolds(const SimProcess& sim, uint64_t address, uint64_t expected) {
  uint64_t value = 0;
  const bool read = start_session(sim.address().c_str(), sim.port()) == 0 &&
                    io_read(address, reinterpret_cast<uint8_t*>(&value), 8) == 0;
  destroy_session();
  return read && value == expected;
}

/// A named pipe that kvx-ta reads its script from. Opened for reading and writing here, it needs
/// no reader to be written to; kvx-ta sees the script end once `close()` is called.
struct ScriptPipe {
  explicit ScriptPipe(std::string at) : path(std::move(at)) {
    if (::mkfifo(path.c_str(), 0600) == 0) fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  }
  ~ScriptPipe() {
    close();
    ::unlink(path.c_str());
  }
  bool send(const std::string& line) {
    return ::write(fd, (line + "\n").c_str(), line.size() + 1) == static_cast<ssize_t>(line.size() + 1);
  }
  void close() {
    if (fd >= 0) ::close(fd);
    fd = -1;
  }
  std::string path;
  int fd = -1;
};

TEST(KvxTaFaultTest, ScriptFailsAtTheFirstAccessAfterARestartAndTheNextRunReachesTheNewAgent) {
  SimProcess sim({"--quiet"});
  const std::string server = sim.address() + ":" + std::to_string(sim.port());
  // Declared before the pipe, so that a failed assertion closes the pipe, ending kvx-ta, before
  // the future waits for it.
  std::future<ProgramResult> running;
  ScriptPipe script(::testing::TempDir() + "kvx-ta-restart-" + std::to_string(::getpid()));
  ASSERT_GE(script.fd, 0) << script.path;
  ASSERT_TRUE(script.send("write 0x10 0x2a 8"));
  ChildProcess::Options options;
  options.environment = {"TA_AGENT_TIMEOUT_MS=300"};
  running = std::async(std::launch::async, [&] {
    return runProgram({KVX_TA_PATH, "--server", server, "script", script.path}, options);
  });
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!agentHolds(sim, 0x10, 0x2a) && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ASSERT_TRUE(agentHolds(sim, 0x10, 0x2a)) << "the first line never reached the agent";

  const bool restarted = sim.restart({"--quiet"});
  if (restarted) {
    ASSERT_TRUE(script.send("read 0x10 8"));
  }
  script.close();
  const ProgramResult result = running.get();
  if (!restarted) GTEST_SKIP() << "port " << sim.port() << " could not be bound again within two seconds";
  EXPECT_EQ(result.exitCode, 1) << result;
  EXPECT_EQ(result.err.rfind("kvx-ta: script:2: Cannot read address 10 with memory space logger", 0), 0u)
      << result;
  EXPECT_EQ(result.out, "") << result;

  // A new run is a new host process with a new session: it reaches the restarted agent.
  const ProgramResult fresh = runProgram({KVX_TA_PATH, "--server", server, "read", "0x10", "8"});
  EXPECT_EQ(fresh.exitCode, 0) << fresh;
  EXPECT_EQ(fresh.out, "0x0000000000000000\n") << "a restarted agent starts with empty memory\n" << fresh;
}

}  // namespace
}  // namespace kvx::test
