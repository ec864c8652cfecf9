#include "tools/Script.h"

#include <cerrno>
#include <fstream>
#include <iostream>
#include <sstream>
#include <vector>

#include "bringup/Error.h"
#include "tools/CommandTable.h"
#include "tools/Interrupt.h"
#include "tools/Session.h"
#include "tools/output/Output.h"

namespace kvx::cli {
namespace {

/// The words of a script line; a word that starts with '#' starts a comment.
std::vector<std::string> splitWords(const std::string& line) {
  std::istringstream stream(line);
  std::vector<std::string> words;
  std::string word;
  while (stream >> word && word.front() != '#') words.push_back(word);
  return words;
}

/// The lines of a script, read one at a time, with their numbers.
class ScriptReader {
 public:
  ScriptReader(std::istream& in, std::string name, const bringup::ElfSymbols* symbols)
      : m_in(in), m_name(std::move(name)), m_symbols(symbols) {}

  /// The next line that holds a command, checked; false at the end of the script.
  bool next(Action& action) {
    std::string line;
    while (std::getline(m_in, line)) {
      ++m_number;
      if (m_number == 1 && line.compare(0, 3, "\xef\xbb\xbf") == 0) line.erase(0, 3);
      const std::vector<std::string> words = splitWords(line);
      if (words.empty()) continue;
      located([&] {
        action =
            parseCommand(words.front(), {words.begin() + 1, words.end()}, CommandContext::kScript, m_symbols);
      });
      return true;
    }
    // A signal ends the read as the end of the input would: say where it stopped.
    ++m_number;
    located(&interrupt::check);
    if (m_in.bad()) throw bringup::fileError("read script", m_name, errno);
    return false;
  }

  /// Runs `step`, locating its failure at the current line.
  template <typename Step>
  void located(Step step) const {
    try {
      step();
    } catch (const bringup::Error& failure) {
      throw failure.locatedAt(m_name, m_number);
    }
  }

  unsigned number() const { return m_number; }

 private:
  std::istream& m_in;
  std::string m_name;
  const bringup::ElfSymbols* m_symbols;
  unsigned m_number = 0;
};

}  // namespace

void runScript(const std::string& path, Session& session) {
  const bool fromStdin = path.empty() || path == "-";
  std::ifstream file;
  if (!fromStdin) {
    file.open(path);
    if (!file) throw bringup::fileError("read script", path, errno);
  }
  ScriptReader reader(fromStdin ? std::cin : file, fromStdin ? "stdin" : path, session.symbols());
  const auto run = [&](const Action& action, unsigned number) {
    try {
      action(session);
      session.output().finish();
    } catch (const bringup::Error& failure) {
      throw failure.locatedAt(fromStdin ? "stdin" : path, number);
    }
  };
  Action action;
  if (fromStdin) {
    // Standard input runs as it comes: whoever writes it may wait for each result.
    while (reader.next(action)) run(action, reader.number());
    return;
  }
  // A file is checked whole before its first line runs: a usage error anywhere runs nothing.
  std::vector<std::pair<unsigned, Action>> commands;
  while (reader.next(action)) commands.emplace_back(reader.number(), action);
  for (const auto& [number, command] : commands) run(command, number);
}

}  // namespace kvx::cli
