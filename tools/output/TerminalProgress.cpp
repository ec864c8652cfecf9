#include "tools/output/TerminalProgress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

#include <nlohmann/json.hpp>

#include "tools/output/Output.h"

namespace kvx::cli {
namespace {

/// Smaller transfers finish before a bar would tell anything.
constexpr uint64_t kBarThreshold = 16 * 1024;
constexpr std::chrono::milliseconds kRedrawInterval(100);
constexpr std::chrono::seconds kLineInterval(1);
constexpr size_t kLongestBar = 30;
constexpr size_t kShortestBar = 10;
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

/// The width of the terminal on stderr, in columns.
size_t terminalColumns() {
  winsize size{};
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  const char* columns = std::getenv("COLUMNS");
  const long parsed = columns != nullptr ? std::strtol(columns, nullptr, 10) : 0;
  return parsed > 0 ? static_cast<size_t>(parsed) : 80;
}

}  // namespace

TerminalProgress::TerminalProgress(Output& output, std::string label, std::optional<uint64_t> total,
                                   bool barAllowed)
    : m_output(output),
      m_label(std::move(label)),
      m_total(total),
      m_start(Clock::now()),
      m_lastShown(m_start) {
  const Output::Options& options = output.options();
  const bool terminal = ::isatty(STDERR_FILENO) == 1;
  const bool worthIt =
      barAllowed && !options.quiet && total.value_or(kBarThreshold) >= kBarThreshold && terminal;
  if (options.worker) {
    m_display = Display::kNone;
    m_worker.emplace();
  } else if (options.json) {
    m_display = options.progress || worthIt ? Display::kJson : Display::kNone;
  } else if (options.progress) {
    m_display = terminal ? Display::kBar : Display::kLines;
  } else {
    m_display = worthIt ? Display::kBar : Display::kNone;
  }
}

TerminalProgress::~TerminalProgress() { clear(); }

void TerminalProgress::advance(uint64_t bytes) {
  m_done += bytes;
  if (m_worker) {
    m_worker->advance(bytes);
    return;
  }
  if (m_display == Display::kNone) return;
  const Clock::time_point now = Clock::now();
  const Clock::duration interval =
      m_display == Display::kBar ? Clock::duration(kRedrawInterval) : Clock::duration(kLineInterval);
  if (now - m_lastShown >= interval) show(now);
}

void TerminalProgress::finish(const std::string& prefix, const nlohmann::json& more) {
  if (m_worker) {
    m_worker->finish();
    return;
  }
  clear();
  const double elapsed = seconds(Clock::now() - m_start);
  const double rate = kibPerSecond(m_done, elapsed);
  char line[160];
  std::snprintf(line, sizeof line, "%s%llu bytes in %.3f s (%.1f KiB/s)", prefix.c_str(),
                static_cast<unsigned long long>(m_done), elapsed, rate);
  nlohmann::json fields{{"operation", m_label}, {"bytes", m_done}, {"seconds", elapsed}, {"kib_per_s", rate}};
  if (more.is_object()) fields.update(more);
  m_output.info(line, fields);
}

void TerminalProgress::show(Clock::time_point now) {
  m_lastShown = now;
  const double elapsed = seconds(now - m_start);
  const double rate = kibPerSecond(m_done, elapsed);
  const auto done = static_cast<unsigned long long>(m_done);
  if (m_display == Display::kJson) {
    nlohmann::json fields{{"progress", m_label}, {"bytes", m_done}, {"kib_per_s", rate}};
    if (m_total) fields["total"] = *m_total;
    m_output.progress("", fields);
    return;
  }
  char figures[160];
  std::string left;
  double fraction = 1.0;
  if (m_total) {
    fraction = *m_total != 0 ? static_cast<double>(m_done) / static_cast<double>(*m_total) : 1.0;
    left = rate > 0 ? clock(static_cast<double>(*m_total - m_done) / kBytesPerKiB / rate) : std::string("?");
    std::snprintf(figures, sizeof figures, "%3d%%  %llu/%llu bytes  %.1f KiB/s  ETA %s",
                  static_cast<int>(fraction * 100), done, static_cast<unsigned long long>(*m_total), rate,
                  left.c_str());
  } else {
    std::snprintf(figures, sizeof figures, "%llu bytes  %.1f KiB/s", done, rate);
  }
  if (m_display == Display::kLines) {
    m_output.progress("kvx-ta: " + m_label + "  " + figures + "\n", nullptr);
    return;
  }
  // On a terminal: a carriage return, the line cut to the terminal's width, and an erase to its
  // end. The bar shrinks before the figures are cut.
  const size_t columns = terminalColumns();
  std::string line = m_label + "  " + figures;
  if (m_total) {
    const size_t room = columns > line.size() + 4 ? columns - line.size() - 4 : 0;
    const size_t width = room < kShortestBar ? 0 : room < kLongestBar ? room : kLongestBar;
    if (width != 0) {
      std::string bar(static_cast<size_t>(fraction * static_cast<double>(width)), '#');
      bar.resize(width, '.');
      line = m_label + " [" + bar + "] " + figures;
    }
  }
  if (columns > 1 && line.size() > columns - 1) line.resize(columns - 1);
  m_output.progress("\r" + line + "\033[K", nullptr);
  m_drawn = true;
}

void TerminalProgress::clear() {
  if (m_drawn) {
    m_output.progress("\r\033[K", nullptr);
    m_drawn = false;
  }
}

}  // namespace kvx::cli
