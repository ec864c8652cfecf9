// `kvx-ta script`: runs commands one line at a time in one session, as they would run on the
// command line. Single-threaded.
#pragma once

#include <string>

namespace kvx::cli {

class Session;

class Script {
 public:
  /// Runs the commands in the file at `path`, or on stdin when `path` is empty or "-". Blank lines
  /// and words from '#' on are skipped. Stops at the first failure, rethrown with the same kind
  /// (so the same exit status) and "script:LINE: " before its message.
  static void run(const std::string& path, Session& session);
};

}  // namespace kvx::cli
