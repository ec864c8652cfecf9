#include "tests/cli/ProgramRun.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ostream>
#include <stdexcept>

extern char** environ;

namespace kvx::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPollMilliseconds = 20;

std::runtime_error systemError(const std::string& what) {
  return std::runtime_error(what + ": " + std::strerror(errno));
}

/// A file descriptor closed on destruction.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : m_fd(fd) {}
  ~Fd() { reset(); }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;

  int get() const { return m_fd; }
  bool open() const { return m_fd >= 0; }
  void reset(int fd = -1) {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = fd;
  }

 private:
  int m_fd = -1;
};

void makePipe(Fd& readEnd, Fd& writeEnd) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) throw systemError("pipe");
  readEnd.reset(ends[0]);
  writeEnd.reset(ends[1]);
}

void setNonBlocking(int fd) { ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK); }

/// The parent's environment with `additions` put over it.
std::vector<std::string> environmentWith(const std::vector<std::string>& additions) {
  std::vector<std::string> result;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text(*entry);
    const std::string name = text.substr(0, text.find('='));
    bool replaced = false;
    for (const std::string& addition : additions) {
      replaced = replaced || addition.compare(0, name.size() + 1, name + "=") == 0;
    }
    if (!replaced) result.push_back(text);
  }
  result.insert(result.end(), additions.begin(), additions.end());
  return result;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> result;
  for (std::string& text : strings) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

/// Appends what `fd` has to `text`; false at end of file (or EIO, a terminal with no writer).
bool drain(int fd, std::string& text) {
  char buffer[4096];
  for (;;) {
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got > 0) {
      text.append(buffer, static_cast<size_t>(got));
      continue;
    }
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return true;
    return false;
  }
}

}  // namespace

ProgramResult runProgram(const std::string& program, const ProgramRun& run) {
  // A child that exits without reading all its input must not take the test down with SIGPIPE.
  static const bool sigpipeIgnored = ::signal(SIGPIPE, SIG_IGN) != SIG_ERR;
  (void)sigpipeIgnored;
  std::vector<std::string> argvStrings{program};
  argvStrings.insert(argvStrings.end(), run.arguments.begin(), run.arguments.end());
  std::vector<std::string> envStrings = environmentWith(run.environment);
  // Built before fork: between fork and exec the child may only make async-signal-safe calls.
  std::vector<char*> argv = pointers(argvStrings);
  std::vector<char*> envp = pointers(envStrings);

  Fd inRead, inWrite, outRead, outWrite, errRead, errWrite;
  makePipe(inRead, inWrite);
  makePipe(outRead, outWrite);
  if (run.stderrOnTerminal) {
    errRead.reset(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!errRead.open() || ::grantpt(errRead.get()) != 0 || ::unlockpt(errRead.get()) != 0) {
      throw systemError("pseudo-terminal");
    }
    errWrite.reset(::open(::ptsname(errRead.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!errWrite.open()) throw systemError("pseudo-terminal");
  } else {
    makePipe(errRead, errWrite);
  }

  const Clock::time_point start = Clock::now();
  const pid_t pid = ::fork();
  if (pid < 0) throw systemError("fork");
  if (pid == 0) {
    // Its own process group, so a timeout kills whatever it started too; and SIGPIPE back to its
    // default, which the parent ignores.
    ::setpgid(0, 0);
    ::signal(SIGPIPE, SIG_DFL);
    if (::dup2(inRead.get(), STDIN_FILENO) < 0 || ::dup2(outWrite.get(), STDOUT_FILENO) < 0 ||
        ::dup2(errWrite.get(), STDERR_FILENO) < 0) {
      ::_exit(127);
    }
    ::execve(argv[0], argv.data(), envp.data());
    ::_exit(127);
  }
  inRead.reset();
  outWrite.reset();
  // A terminal's master reads EIO once no slave is open, and may drop what was left unread; the
  // parent keeps its slave until the child is gone and then drains the master.
  if (!run.stderrOnTerminal) errWrite.reset();
  setNonBlocking(inWrite.get());
  setNonBlocking(outRead.get());
  setNonBlocking(errRead.get());

  ProgramResult result;
  size_t written = 0;
  if (run.input.empty()) inWrite.reset();
  bool outOpen = true;
  bool errOpen = true;
  bool reaped = false;
  int status = 0;
  while (outOpen || errOpen || !reaped) {
    if (!result.timedOut && Clock::now() - start > run.deadline) {
      result.timedOut = true;
      ::kill(-pid, SIGKILL);
      ::kill(pid, SIGKILL);
    }
    std::vector<pollfd> fds;
    if (inWrite.open()) fds.push_back({inWrite.get(), POLLOUT, 0});
    if (outOpen) fds.push_back({outRead.get(), POLLIN, 0});
    if (errOpen) fds.push_back({errRead.get(), POLLIN, 0});
    ::poll(fds.data(), fds.size(), kPollMilliseconds);

    if (inWrite.open()) {
      const ssize_t put = ::write(inWrite.get(), run.input.data() + written, run.input.size() - written);
      if (put > 0) written += static_cast<size_t>(put);
      if (written == run.input.size() || (put < 0 && errno != EAGAIN && errno != EINTR)) inWrite.reset();
    }
    if (outOpen) outOpen = drain(outRead.get(), result.out);
    if (errOpen) errOpen = drain(errRead.get(), result.err);
    if (!reaped && ::waitpid(pid, &status, WNOHANG) == pid) {
      reaped = true;
      if (run.stderrOnTerminal) {
        drain(errRead.get(), result.err);
        errWrite.reset();
        errOpen = false;
      }
    }
  }
  result.elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
  if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  return result;
}

std::ostream& operator<<(std::ostream& out, const ProgramResult& result) {
  out << "exit " << result.exitCode;
  if (result.signal != 0) out << ", signal " << result.signal;
  if (result.timedOut) out << ", timed out";
  return out << " after " << result.elapsed.count() << " ms\n--- stdout ---\n"
             << result.out << "--- stderr ---\n"
             << result.err;
}

}  // namespace kvx::test
