// Where kvx-ta's results and messages go, as the global options ask: results on stdout, as text
// or as one JSON object each (--json); informational lines on stderr unless --quiet. Every write
// to stdout is checked: a result that could not be written (a full disk, a closed stdout) throws
// Failure, so that kvx-ta exits 1 instead of claiming success. Single-threaded.
#pragma once

#include <cstddef>
#include <string>

#include <nlohmann/json.hpp>

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
    /// kvx-ta runs as a worker of another kvx-ta: failures and progress go to stderr as JSON.
    bool worker = false;
  };

  explicit Output(Options options);

  const Options& options() const { return m_options; }

  /// A result: `text` and a newline in plain mode, `fields` as one JSON object a line otherwise.
  void result(const std::string& text, const nlohmann::json& fields);
  /// Text on stdout as it is, such as the lines of a hex dump.
  void text(const std::string& text);
  /// Bytes on stdout as they are (dump --out -).
  void bytes(const void* data, size_t size);
  /// "kvx-ta: LINE" on stderr, unless quiet; in JSON mode `fields` as an object instead.
  void info(const std::string& line, const nlohmann::json& fields = nullptr);
  /// A failure on stderr: "kvx-ta: WHAT: WHY" (and `detail` when verbose), or in JSON mode
  /// {"error": WHAT, "reason": WHY}.
  void failure(const std::string& attempted, const std::string& reason, const std::string& detail) const;
  /// Flushes stdout; throws Failure when what was written could not be.
  void finish();

  /// `text` with its control bytes escaped as \xNN, for echoing what the user typed.
  static std::string printable(const std::string& text);

 private:
  void write(const void* data, size_t size);

  Options m_options;
  /// kvx-ta was started with stdout closed.
  bool m_stdoutClosed = false;
};

}  // namespace kvx::cli
