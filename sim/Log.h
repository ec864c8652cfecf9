// The simulator's event log: one line per event on stderr, or nothing when quiet. Used from the
// single thread that runs the server, so lines never interleave.
#pragma once

#include <iostream>
#include <sstream>

namespace kvx::sim {

class Log {
 public:
  explicit Log(bool quiet) : m_quiet(quiet) {}

  /// Writes the arguments, streamed one after the other, as one line.
  template <typename... Args>
  void line(const Args&... args) const {
    if (m_quiet) return;
    std::ostringstream text;
    text << "kvx-agent-sim: ";
    (text << ... << args);
    text << '\n';
    std::cerr << text.str() << std::flush;
  }

 private:
  bool m_quiet;
};

}  // namespace kvx::sim
