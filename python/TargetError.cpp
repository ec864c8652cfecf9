#include "python/TargetError.h"

#include <pybind11/pybind11.h>

#include <utility>

namespace py = pybind11;

namespace kvx::python {
namespace {

const char* const kDoc =
    "A target access failed: the agent refused it or is gone.\n\n"
    "message: the plug-in's text; address: the address the access named, or None; register: the "
    "register it named, or None.";

/// The Python exception type; set once on import and never released, as modules are never
/// unloaded. A translator is a plain function, which is why it is not captured.
PyObject* pythonType = nullptr;

/// Raises a TargetError thrown by a bound function as the Python exception.
void translate(std::exception_ptr thrown) {
  try {
    if (thrown) std::rethrow_exception(thrown);
  } catch (const TargetError& failure) {
    py::object error = py::reinterpret_borrow<py::object>(pythonType)(failure.what());
    error.attr("message") = failure.what();
    if (failure.address()) error.attr("address") = *failure.address();
    if (failure.registerName()) error.attr("register") = *failure.registerName();
    PyErr_SetObject(pythonType, error.ptr());
  }
}

}  // namespace

TargetError::TargetError(const std::string& message, std::optional<uint64_t> address,
                         std::optional<std::string> registerName)
    : std::runtime_error(message), m_address(address), m_registerName(std::move(registerName)) {}

void TargetError::bind(py::module_& module) {
  // Class attributes give the fields their defaults on an instance that Python code raises.
  py::dict defaults;
  defaults["message"] = py::none();
  defaults["address"] = py::none();
  defaults["register"] = py::none();
  const std::string name = module.attr("__name__").cast<std::string>() + ".TargetError";
  pythonType = PyErr_NewExceptionWithDoc(name.c_str(), kDoc, PyExc_Exception, defaults.ptr());
  if (pythonType == nullptr) throw py::error_already_set();
  module.add_object("TargetError", py::reinterpret_borrow<py::object>(pythonType));
  py::register_exception_translator(&translate);
}

}  // namespace kvx::python
