// Ctrl-C during a long call: the bring-up library calls a checkpoint between accesses, and this
// one takes the interpreter's lock back briefly, at most every 20 ms, to run Python's signal
// handlers. When one raises (KeyboardInterrupt), the call stops after the access in flight, and
// the exception says how far it got. Any thread may call it; Python runs signal handlers only
// in its main thread.
#pragma once

namespace kvx::python {

/// The checkpoint: throws bringup::Error (kInterrupted) when a Python signal handler raised.
/// Call without the interpreter's lock.
void checkSignals();

}  // namespace kvx::python
