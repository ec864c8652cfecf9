#include "tools/Script.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>
#include <utility>

#include "tools/CommandTable.h"
#include "tools/Interrupt.h"
#include "tools/Session.h"
#include "tools/output/Output.h"

namespace kvx::cli {

std::vector<std::string> commandWords(const std::string& line) {
  std::istringstream stream(line);
  std::vector<std::string> words;
  std::string word;
  while (stream >> word && word.front() != '#') words.push_back(word);
  return words;
}

bool ScriptReader::readLine(std::string& line) {
  for (;;) {
    const size_t end = m_pending.find('\n');
    if (end != std::string::npos || (m_ended && !m_pending.empty())) {
      line = m_pending.substr(0, end);
      m_pending.erase(0, end == std::string::npos ? std::string::npos : end + 1);
      return true;
    }
    if (m_ended) return false;
    char buffer[4096];
    const ssize_t got = ::read(m_fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) {
      // A Ctrl-C ends the wait for input; any other signal, the read goes on.
      interrupt::check();
      continue;
    }
    if (got < 0) throw bringup::fileError("read script", m_name, errno);
    if (got == 0) m_ended = true;
    m_pending.append(buffer, static_cast<size_t>(got));
  }
}

bool ScriptReader::next(std::vector<std::string>& words) {
  std::string line;
  for (;;) {
    try {
      if (!readLine(line)) break;
    } catch (const bringup::Error& failure) {
      throw located(failure, m_number + 1);
    }
    ++m_number;
    if (m_number == 1 && line.compare(0, 3, "\xef\xbb\xbf") == 0) line.erase(0, 3);
    words = commandWords(line);
    if (!words.empty()) return true;
  }
  // A signal that came as the input ended still stops the script: say where.
  try {
    interrupt::check();
  } catch (const bringup::Error& failure) {
    throw located(failure, m_number + 1);
  }
  return false;
}

bringup::Error ScriptReader::located(const bringup::Error& failure, unsigned number) const {
  return failure.location() ? failure : failure.locatedAt(m_name, number != 0 ? number : m_number);
}

void runScript(const std::string& path, Session& session) {
  const bool fromStdin = path.empty() || path == "-";
  const int fd = fromStdin ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw bringup::fileError("read script", path, errno);
  struct CloseOnExit {
    int fd;
    ~CloseOnExit() {
      if (fd != STDIN_FILENO) ::close(fd);
    }
  } closeOnExit{fd};
  ScriptReader reader(fd, fromStdin ? "stdin" : path);
  const auto parse = [&](const std::vector<std::string>& words) {
    try {
      return parseCommand(words.front(), {words.begin() + 1, words.end()}, CommandContext::kScript,
                          session.symbols());
    } catch (const bringup::Error& failure) {
      throw reader.located(failure);
    }
  };
  const auto run = [&](const Action& action, unsigned number) {
    try {
      action(session);
      session.output().finish();
    } catch (const bringup::Error& failure) {
      throw reader.located(failure, number);
    }
  };
  std::vector<std::string> words;
  if (fromStdin) {
    // Standard input runs as it comes: whoever writes it may wait for each result.
    while (reader.next(words)) run(parse(words), reader.number());
    return;
  }
  // A file is checked whole before its first line runs: a usage error anywhere runs nothing.
  std::vector<std::pair<unsigned, Action>> commands;
  while (reader.next(words)) commands.emplace_back(reader.number(), parse(words));
  for (const auto& [number, command] : commands) run(command, number);
}

}  // namespace kvx::cli
