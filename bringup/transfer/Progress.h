// How a transfer tells whoever watches it how far it got: kvx-ta draws a bar or prints lines, a
// kvx-ta worker reports to the kvx-ta that runs it, Python watches nothing. Called on the thread
// that runs the transfer.
#pragma once

#include <cstdint>

namespace kvx::bringup {

class Progress {
 public:
  virtual ~Progress() = default;
  /// `bytes` more were moved.
  virtual void advance(uint64_t bytes) = 0;
};

/// Progress that nobody watches.
class NoProgress : public Progress {
 public:
  void advance(uint64_t /*bytes*/) override {}
};

}  // namespace kvx::bringup
