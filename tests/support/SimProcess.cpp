#include "tests/support/SimProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace kvx::test {

namespace {

constexpr const char* kReadyPrefix = "listening on ";

using Clock = std::chrono::steady_clock;

std::runtime_error failure(const std::string& what) { return std::runtime_error("kvx-agent-sim: " + what); }

}  // namespace

const char* SimProcess::executable() { return TA_KVX_SIM_PATH; }

SimProcess::SimProcess(std::vector<std::string> arguments, std::chrono::milliseconds startDeadline) {
  int pipeFds[2];
  if (::pipe2(pipeFds, O_CLOEXEC) != 0) throw failure(std::string("pipe: ") + std::strerror(errno));

  std::vector<std::string> argvStrings;
  argvStrings.emplace_back(executable());
  for (std::string& argument : arguments) argvStrings.push_back(std::move(argument));
  std::vector<char*> argv;
  for (std::string& argument : argvStrings) argv.push_back(argument.data());
  argv.push_back(nullptr);

  // The child's stdout becomes the pipe; stderr stays the test's, so the simulator's log lands
  // in the test output.
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
  const int spawned = ::posix_spawn(&m_pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipeFds[1]);
  m_stdout = pipeFds[0];
  if (spawned != 0) {
    ::close(m_stdout);
    m_pid = -1;
    throw failure(std::string("cannot start ") + executable() + ": " + std::strerror(spawned));
  }

  try {
    const std::string line = readFirstLine(startDeadline);
    const size_t colon = line.rfind(':');
    if (line.rfind(kReadyPrefix, 0) != 0 || colon == std::string::npos) {
      throw failure("unexpected first line: " + line);
    }
    std::string address = line.substr(std::strlen(kReadyPrefix), colon - std::strlen(kReadyPrefix));
    if (address.size() >= 2 && address.front() == '[' && address.back() == ']') {
      address = address.substr(1, address.size() - 2);
    }
    const unsigned long port = std::strtoul(line.c_str() + colon + 1, nullptr, 10);
    if (port == 0 || port > 65535) throw failure("no port in: " + line);
    m_address = address;
    m_port = static_cast<uint16_t>(port);
  } catch (...) {
    kill();
    throw;
  }
}

SimProcess::~SimProcess() { stop(); }

std::string SimProcess::readFirstLine(std::chrono::milliseconds deadline) {
  const Clock::time_point end = Clock::now() + deadline;
  std::string line;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    if (left <= 0) throw failure("no \"listening on\" line in time");
    pollfd p{m_stdout, POLLIN, 0};
    const int ready = ::poll(&p, 1, static_cast<int>(left));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) continue;
    char c;
    const ssize_t n = ::read(m_stdout, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw failure("exited before listening");
    if (c == '\n') return line;
    line.push_back(c);
  }
}

int SimProcess::stop() {
  if (m_pid < 0) return -1;
  ::kill(m_pid, SIGTERM);
  return reap();
}

void SimProcess::kill() {
  if (m_pid < 0) return;
  ::kill(m_pid, SIGKILL);
  reap();
}

int SimProcess::reap() {
  int status = 0;
  pid_t waited;
  do {
    waited = ::waitpid(m_pid, &status, 0);
  } while (waited < 0 && errno == EINTR);
  m_pid = -1;
  ::close(m_stdout);
  m_stdout = -1;
  if (waited < 0) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace kvx::test
