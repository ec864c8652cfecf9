#include "python/GilRelease.h"

#include <unistd.h>

namespace kvx::python {
namespace {

bool finalizing() {
#if PY_VERSION_HEX >= 0x030D0000
  return Py_IsFinalizing() != 0;
#else
  return _Py_IsFinalizing() != 0;
#endif
}

/// Blocks the calling thread until the process exits; nothing it waits on is ever destroyed.
[[noreturn]] void waitForExit() {
  for (;;) ::pause();
}

}  // namespace

GilRelease::GilRelease() : m_state(PyEval_SaveThread()) {}

GilRelease::~GilRelease() {
  // A daemon thread that comes back from the plug-in once the interpreter is shutting down may
  // not run Python again. CPython 3.11 would end it with pthread_exit inside
  // PyEval_RestoreThread, and the forced unwinding would reach this destructor, which may not
  // throw, and abort the process. So the thread waits for the exit instead, as CPython itself
  // does from 3.14 on. It holds none of the plug-in's locks by now.
  if (finalizing()) waitForExit();
  PyEval_RestoreThread(m_state);
}

}  // namespace kvx::python
