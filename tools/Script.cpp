#include "tools/Script.h"

#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "tools/Commands.h"
#include "tools/Failure.h"
#include "tools/InputFile.h"
#include "tools/UsageError.h"
#include "vorn/Exception.h"

namespace kvx::cli {
namespace {

/// The words of a script line; a word that starts with '#' starts a comment.
std::vector<std::string> splitWords(const std::string& line) {
  std::istringstream stream(line);
  std::vector<std::string> words;
  std::string word;
  while (stream >> word && word.front() != '#') {
    words.push_back(word);
  }
  return words;
}

}  // namespace

void Script::run(const std::string& path, Session& session) {
  std::ifstream file;
  std::istream* in = &std::cin;
  if (!path.empty() && path != "-") {
    file.open(path);
    if (!file) {
      throw fileError("read script", path);
    }
    in = &file;
  }
  std::string line;
  for (unsigned number = 1; std::getline(*in, line); ++number) {
    const std::vector<std::string> words = splitWords(line);
    if (words.empty()) {
      continue;
    }
    // The failure keeps its kind, and so the exit status, and gains its line.
    const std::string where = "script:" + std::to_string(number) + ": ";
    try {
      Commands::parse(words.front(), {words.begin() + 1, words.end()}, Commands::Context::kScript)(session);
    } catch (const UsageError& failure) {
      throw UsageError(where + failure.what());
    } catch (const Failure& failure) {
      throw Failure(where + failure.attempted(), failure.reason(), failure.detail());
    } catch (const vorn::Exception& failure) {
      throw vorn::Exception(failure.getFile().c_str(), failure.getLine(), where + failure.getMessage());
    } catch (const std::runtime_error& failure) {
      throw std::runtime_error(where + failure.what());
    }
  }
  if (in->bad()) {
    throw fileError("read script", path.empty() ? "-" : path);
  }
}

}  // namespace kvx::cli
