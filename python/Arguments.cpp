#include "python/Arguments.h"

#include <sstream>

namespace py = pybind11;

namespace kvx::python {
namespace {

/// "NAME must be WHAT, not TYPE".
py::type_error wrongType(const char* name, const char* what, py::handle value) {
  return py::type_error(std::string(name) + " must be " + what + ", not " + Py_TYPE(value.ptr())->tp_name);
}

/// `most` as people read such a bound: decimal up to 32 bits, hexadecimal above (addresses).
std::string bound(uint64_t most) {
  std::ostringstream text;
  if (most > std::numeric_limits<uint32_t>::max()) text << "0x" << std::hex;
  text << most;
  return text.str();
}

}  // namespace

uint64_t Arguments::toUnsigned(py::handle value, const char* name, uint64_t most) {
  if (!PyIndex_Check(value.ptr())) throw wrongType(name, "an int", value);
  const auto index = py::reinterpret_steal<py::object>(PyNumber_Index(value.ptr()));
  if (!index) throw py::error_already_set();
  const unsigned long long converted = PyLong_AsUnsignedLongLong(index.ptr());
  const bool outside = converted == static_cast<unsigned long long>(-1) && PyErr_Occurred() != nullptr;
  if (outside) PyErr_Clear();
  if (outside || converted > most) {
    throw py::value_error(std::string(name) + " must be from 0 to " + bound(most) + ", not " +
                          py::repr(value).cast<std::string>());
  }
  return converted;
}

std::string Arguments::toString(py::handle value, const char* name) {
  if (!PyUnicode_Check(value.ptr())) throw wrongType(name, "a str", value);
  return value.cast<std::string>();
}

std::string Arguments::toBytes(py::handle value, const char* name) {
  if (!PyObject_CheckBuffer(value.ptr())) throw wrongType(name, "bytes-like", value);
  Py_buffer view;
  if (PyObject_GetBuffer(value.ptr(), &view, PyBUF_SIMPLE) != 0) throw py::error_already_set();
  std::string bytes(static_cast<const char*>(view.buf), static_cast<size_t>(view.len));
  PyBuffer_Release(&view);
  return bytes;
}

}  // namespace kvx::python
