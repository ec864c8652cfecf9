#include "tools/Progress.h"

#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <utility>

namespace kvx::cli {
namespace {

/// Smaller transfers finish before a bar would tell anything.
constexpr uint64_t kBarThreshold = 16 * 1024;
constexpr std::chrono::milliseconds kRedrawInterval(100);
constexpr int kBarWidth = 30;
constexpr double kBytesPerKiB = 1024.0;

double seconds(std::chrono::steady_clock::duration elapsed) {
  return std::chrono::duration<double>(elapsed).count();
}

double kibPerSecond(uint64_t bytes, double elapsedSeconds) {
  return elapsedSeconds > 0 ? static_cast<double>(bytes) / kBytesPerKiB / elapsedSeconds : 0.0;
}

}  // namespace

Progress::Progress(std::string label, uint64_t total, std::string prefix, bool barAllowed)
    : m_label(std::move(label)),
      m_total(total),
      m_prefix(std::move(prefix)),
      m_showBar(barAllowed && total >= kBarThreshold && ::isatty(STDERR_FILENO) == 1),
      m_start(Clock::now()),
      m_lastDraw(m_start) {}

Progress::~Progress() { clear(); }

void Progress::advance(uint64_t bytes) {
  m_done += bytes;
  if (!m_showBar) {
    return;
  }
  const Clock::time_point now = Clock::now();
  if (now - m_lastDraw >= kRedrawInterval) {
    draw(now);
  }
}

void Progress::finish() {
  clear();
  const double elapsed = seconds(Clock::now() - m_start);
  char line[160];
  std::snprintf(line, sizeof line, "%s%llu bytes in %.3f s (%.1f KiB/s)\n", m_prefix.c_str(),
                static_cast<unsigned long long>(m_done), elapsed, kibPerSecond(m_done, elapsed));
  std::cout.flush();
  std::cerr << line << std::flush;
}

void Progress::draw(Clock::time_point now) {
  m_lastDraw = now;
  const double fraction = m_total != 0 ? static_cast<double>(m_done) / static_cast<double>(m_total) : 1.0;
  const int filled = static_cast<int>(fraction * kBarWidth);
  std::string bar(static_cast<size_t>(filled), '#');
  bar.resize(kBarWidth, '.');
  char line[200];
  std::snprintf(line, sizeof line, "\r%s [%s] %3d%%  %llu/%llu bytes  %.1f KiB/s\033[K", m_label.c_str(),
                bar.c_str(), static_cast<int>(fraction * 100), static_cast<unsigned long long>(m_done),
                static_cast<unsigned long long>(m_total), kibPerSecond(m_done, seconds(now - m_start)));
  std::cerr << line << std::flush;
  m_drawn = true;
}

void Progress::clear() {
  if (m_drawn) {
    // Carriage return, then erase to the end of the line.
    std::cerr << "\r\033[K" << std::flush;
    m_drawn = false;
  }
}

}  // namespace kvx::cli
