// Reports a bulk transfer: a progress bar with bytes and rate on stderr while it runs, when stderr
// is a terminal and the transfer is large enough to be worth watching, then one summary line
// "N bytes in X s (Y KiB/s)" on stderr when it is done. Single-threaded.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace kvx::cli {

class Progress {
 public:
  /// Starts the clock for a transfer of `total` bytes. `prefix` starts the summary line (empty,
  /// or e.g. "verified "). `barAllowed` false keeps the bar off, e.g. while the transfer itself
  /// prints on the same terminal.
  Progress(std::string label, uint64_t total, std::string prefix = "", bool barAllowed = true);
  /// Clears a bar left by a transfer that failed, so the error message starts a clean line.
  ~Progress();

  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  /// Counts `bytes` more as moved; redraws the bar at most about ten times a second.
  void advance(uint64_t bytes);
  /// Clears the bar and prints the summary line.
  void finish();

 private:
  using Clock = std::chrono::steady_clock;

  void draw(Clock::time_point now);
  void clear();

  std::string m_label;
  uint64_t m_total;
  std::string m_prefix;
  bool m_showBar;
  Clock::time_point m_start;
  Clock::time_point m_lastDraw;
  uint64_t m_done = 0;
  bool m_drawn = false;
};

}  // namespace kvx::cli
