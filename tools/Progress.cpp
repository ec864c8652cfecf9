#include "tools/Progress.h"

#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <utility>

#include <nlohmann/json.hpp>

#include "tools/Output.h"

namespace kvx::cli {
namespace {

/// Smaller transfers finish before a bar would tell anything.
constexpr uint64_t kBarThreshold = 16 * 1024;
constexpr std::chrono::milliseconds kRedrawInterval(100);
constexpr std::chrono::seconds kLineInterval(1);
constexpr int kBarWidth = 30;
constexpr double kBytesPerKiB = 1024.0;

double seconds(std::chrono::steady_clock::duration elapsed) {
  return std::chrono::duration<double>(elapsed).count();
}

double kibPerSecond(uint64_t bytes, double elapsedSeconds) {
  return elapsedSeconds > 0 ? static_cast<double>(bytes) / kBytesPerKiB / elapsedSeconds : 0.0;
}

/// "m:ss", or "h:mm:ss" from an hour on.
std::string clock(double secondsLeft) {
  const auto total = static_cast<unsigned long long>(secondsLeft + 0.5);
  char text[32];
  if (total >= 3600) {
    std::snprintf(text, sizeof text, "%llu:%02llu:%02llu", total / 3600, total / 60 % 60, total % 60);
  } else {
    std::snprintf(text, sizeof text, "%llu:%02llu", total / 60, total % 60);
  }
  return text;
}

}  // namespace

Progress::Progress(Output& output, std::string label, std::optional<uint64_t> total, bool barAllowed)
    : m_output(output),
      m_label(std::move(label)),
      m_total(total),
      m_display(output.options().progress ? (::isatty(STDERR_FILENO) == 1 ? Display::kBar : Display::kLines)
                : barAllowed && !output.options().quiet && total.value_or(kBarThreshold) >= kBarThreshold &&
                        ::isatty(STDERR_FILENO) == 1
                    ? Display::kBar
                    : Display::kNone),
      m_start(Clock::now()),
      m_lastShown(m_start) {}

Progress::~Progress() { clear(); }

void Progress::advance(uint64_t bytes) {
  m_done += bytes;
  if (m_output.options().worker) {
    // A worker tells the kvx-ta that runs it, which shows the progress of all.
    if (Clock::now() - m_lastShown >= kRedrawInterval) report();
    return;
  }
  if (m_display == Display::kNone) return;
  const Clock::time_point now = Clock::now();
  if (now - m_lastShown >= (m_display == Display::kBar
                                ? std::chrono::duration_cast<Clock::duration>(kRedrawInterval)
                                : std::chrono::duration_cast<Clock::duration>(kLineInterval))) {
    show(now);
  }
}

void Progress::report() {
  m_lastShown = Clock::now();
  if (m_done == m_reported) return;
  std::cerr << nlohmann::json{{"done", m_done - m_reported}}.dump() << std::endl;
  m_reported = m_done;
}

void Progress::finish(const std::string& prefix) {
  if (m_output.options().worker) {
    report();
    return;
  }
  clear();
  const double elapsed = seconds(Clock::now() - m_start);
  const double rate = kibPerSecond(m_done, elapsed);
  char line[160];
  std::snprintf(line, sizeof line, "%s%llu bytes in %.3f s (%.1f KiB/s)", prefix.c_str(),
                static_cast<unsigned long long>(m_done), elapsed, rate);
  m_output.info(line, {{"operation", m_label}, {"bytes", m_done}, {"seconds", elapsed}, {"kib_per_s", rate}});
}

void Progress::show(Clock::time_point now) {
  m_lastShown = now;
  const double elapsed = seconds(now - m_start);
  const double rate = kibPerSecond(m_done, elapsed);
  const auto done = static_cast<unsigned long long>(m_done);
  char line[240];
  if (!m_total) {
    std::snprintf(line, sizeof line,
                  m_display == Display::kBar ? "\r%s  %llu bytes  %.1f KiB/s\033[K"
                                             : "kvx-ta: %s  %llu bytes  %.1f KiB/s\n",
                  m_label.c_str(), done, rate);
    m_drawn = m_display == Display::kBar;
    std::cerr << line << std::flush;
    return;
  }
  const uint64_t total = *m_total;
  const double fraction = total != 0 ? static_cast<double>(m_done) / static_cast<double>(total) : 1.0;
  const std::string left =
      rate > 0 ? clock(static_cast<double>(total - m_done) / kBytesPerKiB / rate) : std::string("?");
  if (m_display == Display::kBar) {
    std::string bar(static_cast<size_t>(fraction * kBarWidth), '#');
    bar.resize(kBarWidth, '.');
    // A carriage return, the bar, then an erase to the end of the line.
    std::snprintf(line, sizeof line, "\r%s [%s] %3d%%  %llu/%llu bytes  %.1f KiB/s  ETA %s\033[K",
                  m_label.c_str(), bar.c_str(), static_cast<int>(fraction * 100), done,
                  static_cast<unsigned long long>(total), rate, left.c_str());
    m_drawn = true;
  } else {
    std::snprintf(line, sizeof line, "kvx-ta: %s %3d%%  %llu/%llu bytes  %.1f KiB/s  ETA %s\n",
                  m_label.c_str(), static_cast<int>(fraction * 100), done,
                  static_cast<unsigned long long>(total), rate, left.c_str());
  }
  std::cerr << line << std::flush;
}

void Progress::clear() {
  if (m_drawn) {
    std::cerr << "\r\033[K" << std::flush;
    m_drawn = false;
  }
}

}  // namespace kvx::cli
