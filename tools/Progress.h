// Reports a bulk transfer. While it runs: a bar with bytes, rate and time left on stderr, when
// stderr is a terminal and the transfer is large enough to be worth watching, or a plain line a
// second with --progress when stderr is not a terminal; a transfer of unknown size (a stream) shows
// its bytes and rate without bar or time left. When it is done: one summary,
// "N bytes in X s (Y KiB/s)", or a JSON object with --json; informational, so --quiet drops it.
// Single-threaded.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace kvx::cli {

class Output;

class Progress {
 public:
  /// Starts the clock for a transfer of `total` bytes called `label` ("dump"), or of a size not
  /// known until its end when `total` is empty. `barAllowed` false keeps the terminal bar off,
  /// e.g. while the transfer itself prints on the same terminal.
  Progress(Output& output, std::string label, std::optional<uint64_t> total, bool barAllowed = true);
  /// Clears a bar left by a transfer that failed, so the error message starts a clean line.
  ~Progress();

  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  /// Counts `bytes` more as moved; redraws at most about ten times a second.
  void advance(uint64_t bytes);
  /// Clears the bar and reports the summary, starting it with `prefix` ("verified ").
  void finish(const std::string& prefix = "");

 private:
  using Clock = std::chrono::steady_clock;

  void show(Clock::time_point now);
  void clear();
  /// A worker's report to the kvx-ta that runs it: the bytes moved since the last report.
  void report();

  Output& m_output;
  std::string m_label;
  std::optional<uint64_t> m_total;
  /// The bar on a terminal, or lines with --progress, or nothing.
  enum class Display { kNone, kBar, kLines } m_display;
  Clock::time_point m_start;
  Clock::time_point m_lastShown;
  uint64_t m_done = 0;
  uint64_t m_reported = 0;
  bool m_drawn = false;
};

}  // namespace kvx::cli
