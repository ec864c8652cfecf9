// `kvx-ta script`: runs commands one line at a time in one session, as they would run on the
// command line; and the reading of such lines, which the shell shares. Single-threaded.
#pragma once

#include <string>
#include <vector>

#include "bringup/Error.h"

namespace kvx::cli {

class Session;

/// The words of a line of a script or of the shell; a word that starts with '#' starts a
/// comment.
std::vector<std::string> commandWords(const std::string& line);

/// The lines of a script, or of the shell's input, read one at a time with their numbers. Blank
/// lines and comments are skipped; a UTF-8 byte-order mark before the first line is too. Reads
/// the file descriptor itself, so that a signal ends a read that waits for input (a stream would
/// retry it).
class ScriptReader {
 public:
  /// Reads the descriptor `fd`, which stays the caller's; `name` (a path, or "stdin") locates
  /// failures.
  ScriptReader(int fd, std::string name) : m_fd(fd), m_name(std::move(name)) {}

  /// The words of the next line that holds a command; false at the end of the input. Throws
  /// Error, located at the line: kInterrupted when a signal ended the read, kFile when reading
  /// failed.
  bool next(std::vector<std::string>& words);

  /// The number of the line last read, from 1.
  unsigned number() const { return m_number; }
  /// `failure` located at line `number` (by default the line last read), unless it is located
  /// already: it comes from a script that the line ran.
  bringup::Error located(const bringup::Error& failure, unsigned number = 0) const;

 private:
  /// The next line, without its newline; false at the end of the input.
  bool readLine(std::string& line);

  int m_fd;
  std::string m_name;
  unsigned m_number = 0;
  /// What was read past the line last handed out.
  std::string m_pending;
  bool m_ended = false;
};

/// Runs the commands in the file at `path`, or on stdin when `path` is empty or "-". Every line
/// of a file is checked before the first runs, so that a script with a usage error runs nothing;
/// standard input runs line by line, as it comes. Stops at the first failure, which is rethrown
/// located at its file and line.
void runScript(const std::string& path, Session& session);

}  // namespace kvx::cli
