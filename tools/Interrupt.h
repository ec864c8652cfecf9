// Ctrl-C and SIGTERM during a long transfer: instead of dying half-way, kvx-ta notes the signal,
// and the transfer throws at its next access, so that destructors clean up (a partial output
// file is removed, the embedded simulator stopped) and the failure is reported.
#pragma once

namespace kvx::cli {

class Interrupt {
 public:
  /// Catches SIGINT and SIGTERM from now on.
  static void install();
  /// Throws Failure when a signal has arrived.
  static void check();
};

}  // namespace kvx::cli
