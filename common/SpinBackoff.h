// When to poll a socket for the peer's next message instead of sleeping in the kernel for it.
// Polling pays while the peer answers within a few tens of microseconds; a poll that ends
// empty-handed makes the next chances skip polling, twice as many each time up to kMaxSkip, so a
// slow or idle peer soon costs no CPU. A message that comes within a poll's reach while nobody
// polled for it resets the back-off: a peer that is busy elsewhere between its messages, such as a
// host that alternates between agents, misses a poll now and then, and must not be taken for an
// idle one for it. The agent library polls for replies and the simulator for requests, each with
// one of these per session or connection. Not thread-safe.
#pragma once

#include <algorithm>
#include <cstdint>

namespace kvx::common {

class SpinBackoff {
 public:
  /// Whether this chance should poll; a chance that is skipped counts down the back-off.
  bool shouldPoll() {
    if (m_skip == 0) return true;
    --m_skip;
    return false;
  }
  /// The poll found the message: poll every time again.
  void paidOff() { m_backoff = 0; }
  /// The message came, without a poll, within the time a poll would have waited for it: the
  /// chance was skipped, or not taken. Polling would have paid, so poll every time again.
  void wouldHavePaid() {
    m_backoff = 0;
    m_skip = 0;
  }
  /// The poll found nothing: skip twice as many chances as last time.
  void cameUpEmpty() {
    m_backoff = static_cast<uint16_t>(std::min<unsigned>(2u * m_backoff + 1, kMaxSkip));
    m_skip = m_backoff;
  }

 private:
  static constexpr unsigned kMaxSkip = 255;

  uint16_t m_skip = 0;
  uint16_t m_backoff = 0;
};

}  // namespace kvx::common
