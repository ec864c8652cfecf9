#include "common/SimulatorProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "common/Programs.h"

namespace kvx::common {
namespace {

using Clock = std::chrono::steady_clock;

const std::string kReadyPrefix = "listening on ";
/// How long the child may take to start listening; it normally takes a few milliseconds.
constexpr std::chrono::seconds kStartDeadline(10);
/// How long the child may take to exit after SIGTERM before it is killed.
constexpr int kStopSeconds = 3;
/// The most of a captured stderr that an error message quotes.
constexpr size_t kMostQuotedBytes = 4096;
/// How long restart() waits for the port to come free.
constexpr int kRestartAttempts = 20;
constexpr std::chrono::milliseconds kRestartInterval(100);

std::runtime_error failure(const std::string& what) { return std::runtime_error("kvx-agent-sim: " + what); }

std::runtime_error systemFailure(const std::string& what) {
  return failure(what + ": " + std::strerror(errno));
}

/// The endpoint in "listening on ADDRESS:PORT", an IPv6 address in brackets.
Endpoint parseReadyLine(const std::string& line) {
  std::string why;
  const auto endpoint = line.rfind(kReadyPrefix, 0) == 0
                            ? Endpoint::parse(line.substr(kReadyPrefix.size()), why)
                            : std::nullopt;
  if (!endpoint) throw failure("announced '" + line + "' instead of where it listens");
  return *endpoint;
}

}  // namespace

SimulatorProcess::SimulatorProcess(std::string program, std::vector<std::string> options, Stderr stderrMode)
    : m_program(std::move(program)), m_stderrMode(stderrMode) {
  try {
    spawn(options);
  } catch (const std::runtime_error& error) {
    throw StartFailure(error.what(), -1, "");
  }
  try {
    m_endpoint = parseReadyLine(readReadyLine());
  } catch (const std::runtime_error& error) {
    // Stopped first, so that everything the child wrote is there to quote.
    const int status = stop();
    const std::string said = capturedStderr();
    throw StartFailure(error.what() + (said.empty() ? "" : "; it said:\n" + said), status, said);
  }
}

SimulatorProcess::~SimulatorProcess() {
  stop();
  if (m_stderr >= 0) ::close(m_stderr);
}

void SimulatorProcess::spawn(const std::vector<std::string>& options) {
  if (::access(m_program.c_str(), X_OK) != 0) throw systemFailure("cannot run '" + m_program + "'");
  std::vector<std::string> arguments{m_program};
  arguments.insert(arguments.end(), options.begin(), options.end());
  // Built before fork: the child may only make async-signal-safe calls until exec.
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);

  if (m_stderrMode == Stderr::kCapture) {
    if (m_stderr >= 0) ::close(m_stderr);
    // A file rather than a pipe: nobody reads it while the child runs, and a write to it never
    // blocks.
    m_stderr = ::memfd_create("kvx-agent-sim stderr", MFD_CLOEXEC);
    if (m_stderr < 0) throw systemFailure("cannot create a file for its stderr");
  }
  int pipeEnds[2];
  if (::pipe2(pipeEnds, O_CLOEXEC) != 0) throw systemFailure("cannot create a pipe");
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid < 0) {
    const int error = errno;
    ::close(pipeEnds[0]);
    ::close(pipeEnds[1]);
    errno = error;
    throw systemFailure("cannot start");
  }
  if (pid == 0) {
    // Not outliving the caller, even one killed outright; nor reading its stdin, which a script
    // may be coming from.
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent) ::_exit(127);
    // Out of the caller's process group, so that a Ctrl-C at the terminal reaches the caller
    // alone, which decides whether the simulator stops: kvx-ta's shell goes on with it.
    ::setpgid(0, 0);
    const int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (devNull < 0 || ::dup2(devNull, STDIN_FILENO) < 0 || ::dup2(pipeEnds[1], STDOUT_FILENO) < 0 ||
        (m_stderr >= 0 && ::dup2(m_stderr, STDERR_FILENO) < 0))
      ::_exit(127);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  ::close(pipeEnds[1]);
  m_pid = pid;
  m_stdout = pipeEnds[0];
}

std::string SimulatorProcess::readReadyLine() {
  const Clock::time_point end = Clock::now() + kStartDeadline;
  std::string line;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    if (left <= 0)
      throw failure("did not start listening within " + std::to_string(kStartDeadline.count()) + " s");
    pollfd ready{m_stdout, POLLIN, 0};
    const int polled = ::poll(&ready, 1, static_cast<int>(left));
    if (polled < 0 && errno != EINTR) throw systemFailure("cannot wait for it to start");
    if (polled <= 0) continue;
    char c = 0;
    const ssize_t got = ::read(m_stdout, &c, 1);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) throw failure("exited before it listened");
    if (c == '\n') return line;
    line.push_back(c);
  }
}

std::string SimulatorProcess::capturedStderr() const {
  if (m_stderr < 0) return "";
  char text[kMostQuotedBytes];
  const ssize_t got = ::pread(m_stderr, text, sizeof text, 0);
  if (got <= 0) return "";
  std::string said(text, static_cast<size_t>(got));
  while (!said.empty() && (said.back() == '\n' || said.back() == ' ')) said.pop_back();
  return said;
}

int SimulatorProcess::reap(int seconds) {
  const Clock::time_point end = Clock::now() + std::chrono::seconds(seconds);
  for (;;) {
    int status = 0;
    const pid_t reaped = ::waitpid(m_pid, &status, WNOHANG);
    if (reaped == m_pid) return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    if (reaped < 0 && errno != EINTR) return 0;
    if (Clock::now() >= end) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

int SimulatorProcess::stop() {
  int status = -1;
  if (m_pid > 0) {
    // A child that has ended already, on a signal of the caller's own for example, is only
    // reaped; the simulator itself ignores a stop signal that comes while it is ending.
    status = reap(0);
    if (status < 0) {
      ::kill(m_pid, SIGTERM);
      status = reap(kStopSeconds);
    }
    if (status < 0) {
      ::kill(m_pid, SIGKILL);
      status = reap(kStopSeconds);
    }
    m_pid = -1;
  }
  if (m_stdout >= 0) {
    ::close(m_stdout);
    m_stdout = -1;
  }
  return status;
}

void SimulatorProcess::kill() {
  if (m_pid > 0) ::kill(m_pid, SIGKILL);
  stop();
}

bool SimulatorProcess::restart(std::vector<std::string> options) {
  kill();
  options.insert(options.end(), {"--port", std::to_string(m_endpoint.port)});
  for (int attempt = 0; attempt < kRestartAttempts; ++attempt) {
    try {
      spawn(options);
      const Endpoint endpoint = parseReadyLine(readReadyLine());
      if (endpoint.port == m_endpoint.port) return true;
    } catch (const std::runtime_error&) {
    }
    stop();
    std::this_thread::sleep_for(kRestartInterval);
  }
  return false;
}

std::string SimulatorProcess::besideThisProgram() { return common::besideThisProgram("kvx-agent-sim"); }

}  // namespace kvx::common
