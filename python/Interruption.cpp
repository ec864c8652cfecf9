#include "python/Interruption.h"

#include <Python.h>

#include <chrono>

#include "bringup/Error.h"
#include "python/WithoutGil.h"

namespace kvx::python {
namespace {

/// How long a call goes between looks at Python's signals: taking the interpreter's lock back
/// for every access would let other Python threads hold the call up.
constexpr std::chrono::milliseconds kLookEvery(20);

thread_local std::chrono::steady_clock::time_point t_lastLook;

}  // namespace

void checkSignals() {
  const auto now = std::chrono::steady_clock::now();
  // Once the interpreter shuts down, nothing is left to handle a signal.
  if (now - t_lastLook < kLookEvery || interpreterFinalizing()) return;
  t_lastLook = now;
  const PyGILState_STATE state = PyGILState_Ensure();
  // The exception a handler raised stays set: the translator of the error below replaces it
  // with one that says how far the call got.
  const bool raised = PyErr_CheckSignals() != 0;
  PyGILState_Release(state);
  if (raised) throw bringup::Error(bringup::Error::Kind::kInterrupted, "stopped", "interrupted (Ctrl-C)");
}

}  // namespace kvx::python
