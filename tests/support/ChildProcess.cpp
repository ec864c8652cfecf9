#include "tests/support/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ostream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace kvx::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kProgramDeadline{30};

std::runtime_error systemError(const std::string& what, int error = errno) {
  return std::runtime_error(what + ": " + std::strerror(error));
}

int memoryFile(const char* name) {
  const int fd = ::memfd_create(name, MFD_CLOEXEC);
  if (fd < 0) throw systemError("memfd_create");
  return fd;
}

/// Everything in the file `fd`, whatever its offset.
std::string contents(int fd) {
  std::string text;
  char buffer[4096];
  for (ssize_t got; (got = ::pread(fd, buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0;) {
    text.append(buffer, static_cast<size_t>(got));
  }
  return text;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> result;
  for (std::string& text : strings) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

}  // namespace

void ChildProcess::Fd::reset(int replacement) {
  if (fd >= 0) ::close(fd);
  fd = replacement;
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const Options& options)
    : m_ownGroup(options.ownGroup) {
  std::vector<std::string> arguments = argv;
  // getenv finds the first entry of a name, so the added ones go first.
  std::vector<std::string> environment = options.environment;
  for (char** entry = environ; *entry != nullptr; ++entry) environment.emplace_back(*entry);

  Fd in;
  in.reset(memoryFile("stdin"));
  if (::write(in.fd, options.input.data(), options.input.size()) !=
          static_cast<ssize_t>(options.input.size()) ||
      ::lseek(in.fd, 0, SEEK_SET) != 0) {
    throw systemError("stdin");
  }
  m_out.reset(memoryFile("stdout"));
  if (options.stderrTo == Stderr::kCaptured) m_err.reset(memoryFile("stderr"));
  if (options.stderrTo == Stderr::kTerminal) {
    m_err.reset(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK));
    if (m_err.fd < 0 || ::grantpt(m_err.fd) != 0 || ::unlockpt(m_err.fd) != 0) throw systemError("terminal");
    m_terminal.reset(::open(::ptsname(m_err.fd), O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (m_terminal.fd < 0) throw systemError("terminal");
    m_onTerminal = true;
  }

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in.fd, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, m_out.fd, STDOUT_FILENO);
  const int errFd = m_terminal.fd >= 0 ? m_terminal.fd : m_err.fd;
  if (errFd >= 0) posix_spawn_file_actions_adddup2(&actions, errFd, STDERR_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setpgroup(&attributes, 0);
  posix_spawnattr_setflags(&attributes, m_ownGroup ? POSIX_SPAWN_SETPGROUP : 0);
  std::vector<char*> argPointers = pointers(arguments);
  std::vector<char*> envPointers = pointers(environment);
  const int spawned =
      ::posix_spawn(&m_pid, argPointers[0], &actions, &attributes, argPointers.data(), envPointers.data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) {
    m_pid = -1;
    throw systemError("cannot start " + arguments[0], spawned);
  }
}

ChildProcess::~ChildProcess() {
  signal(SIGKILL);
  reap(true);
}

void ChildProcess::signal(int signal) {
  if (m_pid > 0) ::kill(m_ownGroup ? -m_pid : m_pid, signal);
}

int ChildProcess::reap(bool block) {
  if (m_pid < 0) return m_status;
  int status = 0;
  pid_t waited;
  do {
    waited = ::waitpid(m_pid, &status, block ? 0 : WNOHANG);
  } while (waited < 0 && errno == EINTR);
  if (waited == 0) return -1;
  m_pid = -1;
  m_status = waited < 0 ? 255 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  if (m_terminal.fd >= 0) {
    // Read while the child side is still open, then again once it is closed, which also hands
    // over what the kernel had not yet passed on; then the master reports EIO.
    char buffer[4096];
    for (int pass = 0; pass < 2; ++pass) {
      for (ssize_t got; (got = ::read(m_err.fd, buffer, sizeof buffer)) > 0;) {
        m_terminalText.append(buffer, static_cast<size_t>(got));
      }
      m_terminal.reset();
    }
  }
  return m_status;
}

std::string ChildProcess::out() const { return contents(m_out.fd); }

std::string ChildProcess::err() const {
  if (m_onTerminal) return m_terminalText;
  return m_err.fd >= 0 ? contents(m_err.fd) : "";
}

ProgramResult runProgram(const std::vector<std::string>& argv, const ChildProcess::Options& options) {
  const Clock::time_point start = Clock::now();
  ChildProcess child(argv, options);
  ProgramResult result;
  while ((result.exitCode = child.reap(false)) < 0) {
    if (!result.timedOut && Clock::now() - start > kProgramDeadline) {
      result.timedOut = true;
      child.signal(SIGKILL);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  result.elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
  result.out = child.out();
  result.err = child.err();
  return result;
}

std::ostream& operator<<(std::ostream& out, const ProgramResult& result) {
  out << "exit " << result.exitCode << (result.timedOut ? ", timed out" : "");
  return out << " after " << result.elapsed.count() << " ms\n--- stdout ---\n"
             << result.out << "--- stderr ---\n"
             << result.err;
}

}  // namespace kvx::test
