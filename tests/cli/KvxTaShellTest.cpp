// kvx-ta shell end to end: in a pseudo-terminal, typed at as a user types at a real terminal,
// and with its lines on a pipe. Each run's HOME is a directory of the test's own, so that the
// user's real ~/.kvx_ta_history (and ~/.editrc) is neither read nor written.

#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/ChildProcess.h"

extern char** environ;

namespace kvx::test {
namespace {

using Clock = std::chrono::steady_clock;

/// How long the shell may take to show what a step waits for (the first access starts a
/// simulator).
constexpr std::chrono::seconds kDeadline{20};
const std::string kPrompt = "kvx-ta> ";

/// kvx-ta started in a pseudo-terminal of 80 columns; the test plays the user at its keyboard.
class Terminal {
 public:
  Terminal(const std::vector<std::string>& arguments, const std::string& home) {
    std::vector<std::string> variables = {"HOME=" + home, "TERM=xterm"};
    for (char** entry = environ; *entry != nullptr; ++entry) {
      const std::string variable = *entry;
      const auto replaced = [&variable](const char* name) { return variable.rfind(name, 0) == 0; };
      if (!replaced("HOME=") && !replaced("TERM=") && !replaced("EDITRC=")) variables.push_back(variable);
    }
    std::vector<char*> argv, envp;
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    for (const std::string& variable : variables) envp.push_back(const_cast<char*>(variable.c_str()));
    envp.push_back(nullptr);
    winsize size{};
    size.ws_row = 24;
    size.ws_col = 80;
    m_pid = ::forkpty(&m_master, nullptr, nullptr, &size);
    if (m_pid < 0) throw std::runtime_error(std::string("forkpty: ") + std::strerror(errno));
    if (m_pid == 0) {
      ::execve(argv[0], argv.data(), envp.data());
      ::_exit(127);
    }
  }
  ~Terminal() {
    ::close(m_master);
    if (m_pid > 0 && ::waitpid(m_pid, nullptr, WNOHANG) == 0) {
      ::kill(m_pid, SIGKILL);
      ::waitpid(m_pid, nullptr, 0);
    }
  }

  void type(const std::string& keys) {
    ASSERT_EQ(::write(m_master, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }

  /// Whether `text` comes, after what the last expect() found, before the deadline.
  bool expect(const std::string& text) {
    const Clock::time_point end = Clock::now() + kDeadline;
    for (;;) {
      const size_t at = m_screen.find(text, m_seen);
      if (at != std::string::npos) {
        m_seen = at + text.size();
        return true;
      }
      if (!readSome(end)) return false;
    }
  }

  /// Waits, up to the deadline, for the terminal to be in line editing (`editing`), or out of
  /// it, when the line typed runs.
  bool waitForEditing(bool editing) {
    for (const Clock::time_point end = Clock::now() + kDeadline; Clock::now() < end;) {
      termios modes{};
      if (::tcgetattr(m_master, &modes) == 0 && ((modes.c_lflag & ICANON) == 0) == editing) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
  }

  /// The exit status, once the program has closed the terminal; -1 past the deadline.
  int exitStatus() {
    const Clock::time_point end = Clock::now() + kDeadline;
    while (readSome(end)) {
    }
    for (; Clock::now() < end; std::this_thread::sleep_for(std::chrono::milliseconds(5))) {
      int status = 0;
      if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
        m_pid = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
    }
    return -1;
  }

  /// Everything the program wrote to the terminal.
  const std::string& screen() const { return m_screen; }

 private:
  /// Reads what the program wrote; false at its end or the deadline.
  bool readSome(Clock::time_point end) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    if (left <= 0) return false;
    pollfd ready{m_master, POLLIN, 0};
    if (::poll(&ready, 1, static_cast<int>(left)) <= 0) return left > 0 && errno == EINTR;
    char buffer[4096];
    const ssize_t got = ::read(m_master, buffer, sizeof buffer);
    // EIO: the program closed its side.
    if (got <= 0) return false;
    m_screen.append(buffer, static_cast<size_t>(got));
    return true;
  }

  int m_master = -1;
  pid_t m_pid = 0;
  std::string m_screen;
  size_t m_seen = 0;
};

class KvxTaShellTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = ::testing::TempDir() + "kvx-ta-home-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    m_home = pattern;
  }
  void TearDown() override { std::filesystem::remove_all(m_home); }

  std::string m_home;
};

TEST_F(KvxTaShellTest, AtATerminalSurvivesTyposAndCtrlCRecallsAndCompletesAndLeavesOnCtrlD) {
  Terminal terminal({KVX_TA_PATH, "shell"}, m_home);
  struct Step {
    std::string keys;
    /// Typed while the line before runs; otherwise at the prompt, as a user types.
    bool whileRunning;
    /// What must come back, in order.
    std::vector<std::string> replies;
  };
  const Step steps[] = {
      {"", false, {kPrompt}},
      {"raed 0x1000\r", false, {"unknown command 'raed' (did you mean 'read'?)", kPrompt}},
      {"sleep 99999999\r", false, {"invalid duration '99999999' (at most 3600000 ms, an hour)", kPrompt}},
      {"write 0x1000 0x2a\r", false, {kPrompt}},
      {"read 0x1000\r", false, {"0x0000002a", kPrompt}},
      // Up: the line before.
      {"\x1b[A\r", false, {"read 0x1000", "0x0000002a", kPrompt}},
      // Two registers start with 'p': Tab lists them. Ctrl-C abandons the line; one starts
      // with 's', which Tab completes.
      {"reg p\t", false, {"pc  ps"}},
      {"\x03", false, {"^C", kPrompt}},
      {"reg s\t\r", false, {"0x0000000000000000", kPrompt}},
      // Ctrl-C stops the command that runs, not the shell, nor the simulator with the memory.
      {"sleep 100000\r", false, {}},
      {"\x03", true, {"stopped: interrupted (Ctrl-C)", kPrompt}},
      {"read 0x1000\r", false, {"0x0000002a", kPrompt}},
      {"\x04", false, {}},
  };
  for (const Step& step : steps) {
    // A Ctrl-C discards the keys that the program has not read yet: each waits for its moment.
    ASSERT_TRUE(terminal.waitForEditing(!step.whileRunning)) << "case: " << step.keys << "\n"
                                                             << terminal.screen();
    terminal.type(step.keys);
    for (const std::string& reply : step.replies) {
      ASSERT_TRUE(terminal.expect(reply)) << "case: " << step.keys << " awaits " << reply << "\n"
                                          << terminal.screen();
    }
  }
  EXPECT_EQ(terminal.exitStatus(), 0) << terminal.screen();
  std::ifstream history(m_home + "/.kvx_ta_history");
  const std::string kept{std::istreambuf_iterator<char>(history), std::istreambuf_iterator<char>()};
  EXPECT_NE(kept.find("write\\0400x1000\\0400x2a"), std::string::npos) << kept;
}

TEST_F(KvxTaShellTest, OnAPipeGoesOnAfterAFailureAndExitsAsTheFirstFailure) {
  const ProgramResult result = runProgram({KVX_TA_PATH, "shell"},
                                          "write 0x1000 0x2a\n"
                                          "shell\n"
                                          "read 0x1000\n",
                                          {"HOME=" + m_home});
  EXPECT_TRUE(result.exitCode == 2 && result.out == "0x0000002a\n" &&
              result.err.find("kvx-ta: stdin:2: 'shell' cannot run inside the shell\n") !=
                  std::string::npos &&
              result.err.find("kvx-ta: 1 command failed: the first at stdin:2\n") != std::string::npos)
      << result;
}

}  // namespace
}  // namespace kvx::test
