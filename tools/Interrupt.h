// Ctrl-C and SIGTERM: instead of dying half-way, kvx-ta notes the signal, and whatever runs stops
// at its next checkpoint (before every access, and at least every 50 ms while it waits), so that
// destructors clean up (a partial output file, the embedded simulator) and the interruption is
// reported, with how far the work got.
#pragma once

namespace kvx::cli::interrupt {

/// Catches SIGINT and SIGTERM from now on.
void install();
/// Throws Error (kInterrupted) when a signal has arrived.
void check();
/// Whether a signal has arrived.
bool pending();

}  // namespace kvx::cli::interrupt
