#include "tools/EmbeddedAgent.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "tools/Numbers.h"

namespace kvx::cli {
namespace {

using Clock = std::chrono::steady_clock;

const char* const kReadyPrefix = "listening on ";
/// How long the child may take to start listening; it normally takes a few milliseconds.
constexpr std::chrono::seconds kStartDeadline(10);
/// How long the child may take to exit after SIGTERM before it is killed.
constexpr std::chrono::seconds kStopDeadline(3);
constexpr std::chrono::milliseconds kReapInterval(5);

std::runtime_error systemError(const std::string& what) {
  return std::runtime_error(what + ": " + std::strerror(errno));
}

/// Reaps `pid` within `deadline`; false when it is still running.
bool reapWithin(pid_t pid, std::chrono::milliseconds deadline) {
  const Clock::time_point end = Clock::now() + deadline;
  for (;;) {
    int status = 0;
    const pid_t reaped = ::waitpid(pid, &status, WNOHANG);
    if (reaped == pid || (reaped < 0 && errno != EINTR)) {
      return true;
    }
    if (Clock::now() >= end) {
      return false;
    }
    std::this_thread::sleep_for(kReapInterval);
  }
}

}  // namespace

EmbeddedAgent::EmbeddedAgent(const std::string& program, const std::vector<std::string>& extraArguments) {
  if (::access(program.c_str(), X_OK) != 0) {
    throw std::runtime_error("cannot run the simulated agent '" + program + "': " + std::strerror(errno) +
                             " (name an agent with --server HOST:PORT)");
  }
  std::vector<std::string> arguments{program, "--port", "0", "--quiet"};
  arguments.insert(arguments.end(), extraArguments.begin(), extraArguments.end());
  // Built before fork: the child may only make async-signal-safe calls until exec.
  std::vector<char*> argv;
  for (std::string& argument : arguments) {
    argv.push_back(argument.data());
  }
  argv.push_back(nullptr);

  int pipeEnds[2];
  if (::pipe2(pipeEnds, O_CLOEXEC) != 0) {
    throw systemError("cannot create a pipe for the simulated agent");
  }
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid < 0) {
    const int error = errno;
    ::close(pipeEnds[0]);
    ::close(pipeEnds[1]);
    errno = error;
    throw systemError("cannot start the simulated agent");
  }
  if (pid == 0) {
    // The agent must not outlive kvx-ta, even one killed by a signal; nor read kvx-ta's stdin,
    // which a script may be coming from.
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent) {
      ::_exit(127);
    }
    const int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (devNull < 0 || ::dup2(devNull, STDIN_FILENO) < 0 || ::dup2(pipeEnds[1], STDOUT_FILENO) < 0) {
      ::_exit(127);
    }
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  ::close(pipeEnds[1]);
  m_pid = pid;
  m_stdout = pipeEnds[0];

  std::string line;
  try {
    line = readReadyLine();
  } catch (const std::runtime_error&) {
    stop();
    throw;
  }
  // "listening on ADDRESS:PORT", an IPv6 address in brackets.
  uint64_t port = 0;
  const size_t colon = line.rfind(':');
  if (line.compare(0, std::strlen(kReadyPrefix), kReadyPrefix) != 0 || colon == std::string::npos ||
      !parseUnsigned(line.substr(colon + 1), port)) {
    stop();
    throw std::runtime_error("the simulated agent announced '" + line + "' instead of where it listens");
  }
  std::string host = line.substr(std::strlen(kReadyPrefix), colon - std::strlen(kReadyPrefix));
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  }
  m_endpoint = Endpoint{host, static_cast<int>(port)};
}

EmbeddedAgent::~EmbeddedAgent() { stop(); }

std::string EmbeddedAgent::besideThisProgram() {
  char path[4096];
  const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path - 1);
  if (length <= 0) {
    throw systemError("cannot find where kvx-ta runs from");
  }
  std::string self(path, static_cast<size_t>(length));
  return self.substr(0, self.rfind('/') + 1) + "kvx-agent-sim";
}

std::string EmbeddedAgent::readReadyLine() {
  const Clock::time_point end = Clock::now() + kStartDeadline;
  std::string line;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    if (left.count() <= 0) {
      throw std::runtime_error("the simulated agent did not start listening within " +
                               std::to_string(kStartDeadline.count()) + " s");
    }
    pollfd ready{m_stdout, POLLIN, 0};
    const int polled = ::poll(&ready, 1, static_cast<int>(left.count()));
    if (polled < 0 && errno != EINTR) {
      throw systemError("cannot wait for the simulated agent");
    }
    if (polled <= 0) {
      continue;
    }
    char c = 0;
    const ssize_t got = ::read(m_stdout, &c, 1);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got <= 0) {
      throw std::runtime_error("the simulated agent exited before it was ready");
    }
    if (c == '\n') {
      return line;
    }
    line.push_back(c);
  }
}

void EmbeddedAgent::stop() {
  if (m_pid > 0) {
    ::kill(m_pid, SIGTERM);
    if (!reapWithin(m_pid, kStopDeadline)) {
      ::kill(m_pid, SIGKILL);
      reapWithin(m_pid, kStopDeadline);
    }
    m_pid = -1;
  }
  if (m_stdout >= 0) {
    ::close(m_stdout);
    m_stdout = -1;
  }
}

}  // namespace kvx::cli
