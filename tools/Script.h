// `kvx-ta script`: runs commands one line at a time in one session, as they would run on the
// command line. Single-threaded.
#pragma once

#include <string>

namespace kvx::cli {

class Session;

/// Runs the commands in the file at `path`, or on stdin when `path` is empty or "-". Blank lines
/// and words from '#' on are skipped; a UTF-8 byte-order mark before the first line is too. Every
/// line of a file is checked before the first runs, so that a script with a usage error runs
/// nothing; standard input runs line by line, as it comes.
/// Stops at the first failure, which is rethrown located at its file and line.
void runScript(const std::string& path, Session& session);

}  // namespace kvx::cli
