// Shows a bulk transfer to the person who runs kvx-ta. While it runs: a bar with bytes, rate and
// time left on stderr, fitted to the terminal's width, when stderr is a terminal and the transfer
// is large enough to be worth watching; a plain line a second with --progress when stderr is not
// a terminal; one JSON object a second with --json; bytes and rate without a bar for a transfer
// of unknown size (a stream). When it is done: one summary, "N bytes in X s (Y KiB/s)", or a JSON
// object with --json; informational, so --quiet drops it. In a worker, the progress goes to the
// kvx-ta that runs it instead. Single-threaded.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "bringup/transfer/Progress.h"
#include "bringup/transfer/WorkerMessages.h"

namespace kvx::cli {

class Output;

class TerminalProgress : public bringup::Progress {
 public:
  /// Starts the clock for a transfer of `total` bytes called `label` ("dump"), or of a size not
  /// known until its end when `total` is empty. `barAllowed` false keeps the terminal bar off,
  /// e.g. while the transfer itself prints on the same terminal.
  TerminalProgress(Output& output, std::string label, std::optional<uint64_t> total, bool barAllowed = true);
  /// Clears a bar left by a transfer that failed, so the error message starts a clean line.
  ~TerminalProgress() override;

  TerminalProgress(const TerminalProgress&) = delete;
  TerminalProgress& operator=(const TerminalProgress&) = delete;

  /// Counts `bytes` more as moved; redraws at most about ten times a second.
  void advance(uint64_t bytes) override;
  /// Clears the bar and reports the summary, starting it with `prefix` ("verified "); `more` adds
  /// to its JSON object.
  void finish(const std::string& prefix = "", const nlohmann::json& more = nullptr);
  /// The bytes moved so far.
  uint64_t done() const { return m_done; }

 private:
  using Clock = std::chrono::steady_clock;

  void show(Clock::time_point now);
  void clear();

  Output& m_output;
  std::string m_label;
  std::optional<uint64_t> m_total;
  /// The bar on a terminal, lines with --progress, JSON objects with --json, or nothing.
  enum class Display { kNone, kBar, kLines, kJson } m_display;
  /// In a worker: the reports to the kvx-ta that runs it.
  std::optional<bringup::WorkerProgress> m_worker;
  Clock::time_point m_start;
  Clock::time_point m_lastShown;
  uint64_t m_done = 0;
  bool m_drawn = false;
};

}  // namespace kvx::cli
