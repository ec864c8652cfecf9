// Ctrl-C and SIGTERM: instead of dying half-way, kvx-ta notes the signal, and whatever runs stops
// at its next checkpoint (before every access, and at least every 50 ms while it waits), so that
// destructors clean up (a partial output file, the embedded simulator) and the interruption is
// reported, with how far the work got. The shell forgets a Ctrl-C once it has stopped a command;
// a SIGTERM is never forgotten.
#pragma once

#include <chrono>

namespace kvx::cli::interrupt {

/// Catches SIGINT and SIGTERM from now on.
void install();
/// Throws Error (kInterrupted) when a signal has arrived.
void check();
/// Whether a signal has arrived.
bool pending();
/// Whether SIGTERM has arrived: the run is to end, shell or not.
bool terminating();
/// Forgets a Ctrl-C (SIGINT) that has arrived, and says whether one had; a SIGTERM stays.
bool dismissCtrlC();

/// Waits `duration`, calling check() at least every 50 ms: a signal ends the wait at once.
void sleep(std::chrono::milliseconds duration);

}  // namespace kvx::cli::interrupt
