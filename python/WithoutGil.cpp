#include "python/WithoutGil.h"

#include <unistd.h>

namespace kvx::python {

bool interpreterFinalizing() {
#if PY_VERSION_HEX >= 0x030D0000
  return Py_IsFinalizing() != 0;
#else
  return _Py_IsFinalizing() != 0;
#endif
}

namespace detail {

void retakeGil(PyThreadState* state) {
  // Once the interpreter has begun to shut down the thread waits for the exit, as CPython itself
  // does from 3.14 on; it holds none of the plug-in's locks by now. Should the shutdown begin
  // while it waits for the lock, CPython ends the thread, unwinding through withoutGil.
  if (interpreterFinalizing()) {
    for (;;) ::pause();
  }
  PyEval_RestoreThread(state);
}

}  // namespace detail
}  // namespace kvx::python
