#include "python/Errors.h"

#include <pybind11/pybind11.h>

#include "bringup/Error.h"

namespace py = pybind11;

namespace kvx::python {
namespace {

const char* const kDoc =
    "A target access failed: the agent refused it or is gone.\n\n"
    "message: the whole text; reason: why, in the user's terms; call and status: the agent call that "
    "failed and what it returned; address and register: what the failed access named (else None).";

/// The Python exception type; set once on import and never released, as modules are never
/// unloaded. A translator is a plain function, which is why it is not captured.
PyObject* targetErrorType = nullptr;

/// Raises `type` with `message`, replacing any exception that is set (a KeyboardInterrupt that
/// the checkpoint found is raised again with how far the work got).
void raise(PyObject* type, const std::string& message) {
  PyErr_Clear();
  PyErr_SetString(type, message.c_str());
}

void translate(std::exception_ptr thrown) {
  try {
    if (thrown) std::rethrow_exception(thrown);
  } catch (const bringup::Error& failure) {
    switch (failure.kind()) {
      case bringup::Error::Kind::kUsage:
        raise(PyExc_ValueError, failure.what());
        return;
      case bringup::Error::Kind::kFile:
        raise(PyExc_OSError, failure.what());
        return;
      case bringup::Error::Kind::kInterrupted:
        raise(PyExc_KeyboardInterrupt, failure.what());
        return;
      case bringup::Error::Kind::kTarget:
      case bringup::Error::Kind::kConnection:
        break;
    }
    PyErr_Clear();
    py::object error = py::reinterpret_borrow<py::object>(targetErrorType)(failure.what());
    error.attr("message") = failure.what();
    error.attr("reason") = failure.reason();
    if (const auto& call = failure.call()) {
      error.attr("call") = call->name;
      error.attr("status") = call->status;
      if (call->address) error.attr("address") = *call->address;
      if (call->registerName) error.attr("register") = *call->registerName;
    }
    PyErr_SetObject(targetErrorType, error.ptr());
  }
}

}  // namespace

void bindErrors(py::module_& module) {
  // Class attributes give the fields their defaults on an instance that Python code raises.
  py::dict defaults;
  for (const char* field : {"message", "reason", "call", "status", "address", "register"})
    defaults[field] = py::none();
  const std::string name = module.attr("__name__").cast<std::string>() + ".TargetError";
  targetErrorType = PyErr_NewExceptionWithDoc(name.c_str(), kDoc, PyExc_Exception, defaults.ptr());
  if (targetErrorType == nullptr) throw py::error_already_set();
  module.add_object("TargetError", py::reinterpret_borrow<py::object>(targetErrorType));
  py::register_exception_translator(&translate);
}

}  // namespace kvx::python
