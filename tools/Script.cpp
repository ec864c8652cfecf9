#include "tools/Script.h"

#include <cerrno>
#include <fstream>
#include <iostream>
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

bool ScriptReader::next(std::vector<std::string>& words) {
  std::string line;
  while (std::getline(m_in, line)) {
    ++m_number;
    if (m_number == 1 && line.compare(0, 3, "\xef\xbb\xbf") == 0) line.erase(0, 3);
    words = commandWords(line);
    if (!words.empty()) return true;
  }
  // A signal ends the read as the end of the input would: say where it stopped.
  ++m_number;
  try {
    interrupt::check();
  } catch (const bringup::Error& failure) {
    throw located(failure);
  }
  if (m_in.bad()) throw bringup::fileError("read script", m_name, errno);
  return false;
}

bringup::Error ScriptReader::located(const bringup::Error& failure, unsigned number) const {
  return failure.location() ? failure : failure.locatedAt(m_name, number != 0 ? number : m_number);
}

void runScript(const std::string& path, Session& session) {
  const bool fromStdin = path.empty() || path == "-";
  std::ifstream file;
  if (!fromStdin) {
    file.open(path);
    if (!file) throw bringup::fileError("read script", path, errno);
  }
  ScriptReader reader(fromStdin ? std::cin : file, fromStdin ? "stdin" : path);
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
