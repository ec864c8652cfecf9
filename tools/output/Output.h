// Where kvx-ta's results and messages go, as the global options ask: results on stdout, as text
// or as one JSON object a line (--json); informational lines, warnings, progress, the agent calls
// of --trace and failures on stderr, as "kvx-ta: ..." lines or, with --json, one JSON object
// each. Every address and value in JSON is a "0x..." string, so that 64-bit values survive tools
// that read numbers as doubles.
//
// stdout is written through a buffer of its own with write(2), so that every failure is caught
// with its real cause: a result that could not be written (a full disk, a closed stdout) is an
// Error, and kvx-ta never claims a success it did not have. A reader that closed the pipe ends
// kvx-ta quietly, as it ends other Unix tools. Single-threaded, but for trace(), which the agent
// calls of any thread may reach.
#pragma once

#include <cstddef>
#include <mutex>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "bringup/Error.h"

namespace kvx::bringup {
struct AgentCall;
}  // namespace kvx::bringup

namespace kvx::cli {

class Output {
 public:
  struct Options {
    bool json = false;
    bool quiet = false;
    /// Failures show what lies beneath them, the plug-in's source locations included.
    bool verbose = false;
    /// Progress is shown even when stderr is not a terminal.
    bool progress = false;
    /// kvx-ta runs as a worker of another kvx-ta: failures and progress are its messages.
    bool worker = false;
  };

  /// Plain text, until configure() says otherwise.
  Output();
  ~Output();

  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  void configure(const Options& options) { m_options = options; }
  const Options& options() const { return m_options; }

  /// A result: `text` and a newline, or with --json `fields` as one JSON object a line.
  void result(const std::string& text, const nlohmann::json& fields);
  /// Text on stdout as it is, such as the lines of a hex dump.
  void text(const std::string& text);
  /// Bytes on stdout as they are (dump --out -).
  void bytes(const void* data, size_t size);
  /// "kvx-ta: LINE" on stderr, unless --quiet; with --json, `fields` (or {"info": LINE}).
  void info(const std::string& line, const nlohmann::json& fields = nullptr);
  /// "kvx-ta: warning: LINE" on stderr, unless --quiet; with --json, {"warning": LINE}.
  void warning(const std::string& line);
  /// A line of progress on stderr, as it is; with --json, `fields` instead.
  void progress(const std::string& line, const nlohmann::json& fields);
  /// One agent call, for --trace.
  void trace(const bringup::AgentCall& call);
  /// A failure on stderr: "kvx-ta: [FILE:LINE: ]WHAT: WHY" (and what lies beneath with
  /// --verbose), or with --json (and as a worker) one JSON object with both.
  void failure(const bringup::Error& error);
  /// Writes out what stdout still holds; throws Error (kFile) when it could not be written.
  void finish();
  /// Whether the reader of stdout went away: kvx-ta then ends quietly.
  bool readerGone() const { return m_readerGone; }

  /// `text` with its control bytes escaped as \xNN, for echoing what the user typed.
  static std::string printable(const std::string& text);

 private:
  void write(const void* data, size_t size);
  void flush();
  /// A whole line on stderr, after what stdout holds.
  void toStderr(const std::string& line);

  Options m_options;
  /// What stdout has yet to take.
  std::string m_pending;
  /// kvx-ta was started with stdout closed.
  bool m_stdoutClosed = false;
  bool m_readerGone = false;
  /// A failure to write stdout met while writing stderr, for the next write to stdout to throw.
  std::optional<bringup::Error> m_deferred;
  /// Serialises the lines of trace(), which any thread may reach, with the rest of stderr.
  std::mutex m_stderrMutex;
};

}  // namespace kvx::cli
