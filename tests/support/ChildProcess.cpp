#include "tests/support/ChildProcess.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace kvx::test {
namespace {

constexpr std::chrono::seconds kDeadline{30};
/// The exit status of a child that could not run the program, as a shell has it.
constexpr int kCannotStart = 127;

/// A file in memory, closed on destruction.
struct MemoryFile {
  explicit MemoryFile(const std::string& content = "") : fd(::memfd_create("child", MFD_CLOEXEC)) {
    if (fd < 0 || ::pwrite(fd, content.data(), content.size(), 0) != static_cast<ssize_t>(content.size())) {
      throw std::runtime_error(std::string("memory file: ") + std::strerror(errno));
    }
  }
  ~MemoryFile() { ::close(fd); }
  std::string content() const {
    std::string text;
    char buffer[4096];
    for (ssize_t got; (got = ::pread(fd, buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0;) {
      text.append(buffer, static_cast<size_t>(got));
    }
    return text;
  }
  int fd;
};

/// The C strings of `strings`, null-terminated, as exec takes them.
std::vector<char*> pointers(const std::vector<std::string>& strings) {
  std::vector<char*> result;
  for (const std::string& text : strings) result.push_back(const_cast<char*>(text.c_str()));
  result.push_back(nullptr);
  return result;
}

/// Whether process `pid` has a handler for SIGINT, as /proc/PID/status says.
bool catchesInterrupt(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("SigCgt:", 0) == 0) return (std::stoull(line.substr(7), nullptr, 16) >> (SIGINT - 1)) & 1;
  }
  return false;
}

/// Whether every process of process group `group` has a handler for SIGINT.
bool groupCatchesInterrupt(pid_t group) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    // The fields after the parenthesised command name: state, parent, process group.
    std::ifstream stat(entry.path() / "stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    std::istringstream fields(text.substr(text.rfind(')') + 1));
    std::string state;
    pid_t parent = 0;
    pid_t processGroup = 0;
    if (fields >> state >> parent >> processGroup && processGroup == group && state != "Z" &&
        !catchesInterrupt(std::stoi(name))) {
      return false;
    }
  }
  return true;
}

/// Waits for `pid`, the leader of a process group of its own, and returns its exit status or 128
/// + the signal that ended it. Past kDeadline it kills the whole group and sets `timedOut`. With
/// `interruptAfter`, interrupts the group as runProgram() says.
int awaitGroupLeader(pid_t pid, bool& timedOut,
                     std::optional<std::chrono::milliseconds> interruptAfter = std::nullopt) {
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  std::optional<std::chrono::steady_clock::time_point> handled;
  int status = 0;
  while (::waitpid(pid, &status, WNOHANG) == 0) {
    const auto now = std::chrono::steady_clock::now();
    if (interruptAfter && !handled && catchesInterrupt(pid)) handled = now;
    if (interruptAfter && handled && now - *handled >= *interruptAfter && groupCatchesInterrupt(pid)) {
      ::kill(-pid, SIGINT);
      interruptAfter.reset();
    }
    if (!timedOut && now > deadline) {
      timedOut = true;
      ::kill(-pid, SIGKILL);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/// Set in a child that ForkedChild made.
bool g_inForkedChild = false;

}  // namespace

// A forked child holds copies of what the parent's other threads had allocated but none of those
// threads, whose stacks were what kept it reachable: the leak check that LeakSanitizer runs at
// exit would report it. It is the parent's memory, checked when the parent exits.
extern "C" int __lsan_is_turned_off() { return g_inForkedChild ? 1 : 0; }

ForkedChild::ForkedChild(const std::function<int()>& body) {
  // Output still buffered would be written by both processes.
  std::fflush(nullptr);
  m_pid = ::fork();
  if (m_pid < 0) throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
  if (m_pid == 0) {
    g_inForkedChild = true;
    ::setpgid(0, 0);
    std::exit(body());
  }
}

ForkedChild::~ForkedChild() {
  if (m_pid > 0) join();
}

ProgramResult ForkedChild::join() {
  ProgramResult result;
  result.exitCode = awaitGroupLeader(m_pid, result.timedOut);
  m_pid = -1;
  return result;
}

ProgramResult runProgram(const std::vector<std::string>& argv, const std::string& input,
                         const std::vector<std::string>& environment,
                         std::optional<std::chrono::milliseconds> interruptAfter) {
  // getenv finds the first entry of a name, so the added ones go first.
  std::vector<std::string> variables = environment;
  for (char** entry = environ; *entry != nullptr; ++entry) variables.emplace_back(*entry);
  const MemoryFile in(input), out, err;
  std::vector<char*> argPointers = pointers(argv);
  std::vector<char*> envPointers = pointers(variables);
  const pid_t pid = ::fork();
  if (pid < 0) throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
  if (pid == 0) {
    // A process group of its own, so that the watchdog reaches whatever the program started too.
    ::setpgid(0, 0);
    if (::dup2(in.fd, STDIN_FILENO) >= 0 && ::dup2(out.fd, STDOUT_FILENO) >= 0 &&
        ::dup2(err.fd, STDERR_FILENO) >= 0) {
      ::execve(argPointers[0], argPointers.data(), envPointers.data());
    }
    ::_exit(kCannotStart);
  }
  ProgramResult result;
  result.exitCode = awaitGroupLeader(pid, result.timedOut, interruptAfter);
  result.out = out.content();
  result.err = err.content();
  return result;
}

std::ostream& operator<<(std::ostream& out, const ProgramResult& result) {
  return out << "exit " << result.exitCode << (result.timedOut ? " (timed out)" : "") << "\n--- stdout ---\n"
             << result.out << "--- stderr ---\n"
             << result.err;
}

}  // namespace kvx::test
