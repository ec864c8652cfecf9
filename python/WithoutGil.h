// Runs a call of the plug-in, a simulator or log4cxx with the interpreter's lock (the GIL)
// released, so that other Python threads run while this one waits. The call must not touch
// Python objects.
#pragma once

#include <Python.h>

#include <type_traits>

namespace kvx::python {

/// Whether the interpreter has begun to shut down; safe without the lock.
bool interpreterFinalizing();

namespace detail {
/// Takes the lock back; at interpreter shutdown it waits for the process's exit instead.
void retakeGil(PyThreadState* state);
}  // namespace detail

/// Returns what `call` returns and throws what it throws, holding the lock again either way.
///
/// The lock is taken back by a plain call rather than by a destructor on purpose. A daemon thread
/// that comes back while the interpreter shuts down must not run Python again, and CPython 3.11
/// ends it with pthread_exit from inside PyEval_RestoreThread. The unwinding that follows runs
/// through this function and the bindings to the thread's start; a destructor, which may not
/// throw, would abort the process instead.
template <typename Call>
auto withoutGil(Call&& call) -> decltype(call()) {
  PyThreadState* state = PyEval_SaveThread();
  try {
    if constexpr (std::is_void_v<decltype(call())>) {
      call();
      detail::retakeGil(state);
    } else {
      auto result = call();
      detail::retakeGil(state);
      return result;
    }
  } catch (...) {
    detail::retakeGil(state);
    throw;
  }
}

}  // namespace kvx::python
