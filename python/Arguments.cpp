#include "python/Arguments.h"

#include <sstream>

namespace py = pybind11;

namespace kvx::python {
namespace {

/// "NAME must be WHAT, not TYPE".
py::type_error wrongType(const char* name, const char* what, py::handle value) {
  return py::type_error(std::string(name) + " must be " + what + ", not " + Py_TYPE(value.ptr())->tp_name);
}

/// `bound` as people read such a bound: decimal up to 32 bits, hexadecimal above (addresses).
std::string shown(uint64_t bound) {
  std::ostringstream text;
  if (bound > std::numeric_limits<uint32_t>::max()) text << "0x" << std::hex;
  text << bound;
  return text.str();
}

}  // namespace

uint64_t Arguments::toUnsigned(py::handle value, const char* name, uint64_t most, uint64_t least) {
  // A bool is an int to Python, but True as an address is a slip.
  if (PyBool_Check(value.ptr()) || !PyIndex_Check(value.ptr())) throw wrongType(name, "an int", value);
  const auto index = py::reinterpret_steal<py::object>(PyNumber_Index(value.ptr()));
  if (!index) throw py::error_already_set();
  const unsigned long long converted = PyLong_AsUnsignedLongLong(index.ptr());
  const bool outside = converted == static_cast<unsigned long long>(-1) && PyErr_Occurred() != nullptr;
  if (outside) PyErr_Clear();
  if (outside || converted > most || converted < least) {
    throw py::value_error(std::string(name) + " must be from " + shown(least) + " to " + shown(most) +
                          ", not " + py::repr(value).cast<std::string>());
  }
  return converted;
}

uint64_t Arguments::toLength(py::handle value, const char* name) {
  return toUnsigned(value, name, static_cast<uint64_t>(PY_SSIZE_T_MAX));
}

py::bytes Arguments::newBytes(uint64_t length, const char* name) {
  PyObject* bytes = PyBytes_FromStringAndSize(nullptr, static_cast<Py_ssize_t>(length));
  if (bytes == nullptr) {
    PyErr_Clear();
    PyErr_SetString(PyExc_MemoryError, (std::string(name) + " " + std::to_string(length) +
                                        " is more bytes than this process can hold")
                                           .c_str());
    throw py::error_already_set();
  }
  return py::reinterpret_steal<py::bytes>(bytes);
}

bool Arguments::toBool(py::handle value, const char* name) {
  if (!PyBool_Check(value.ptr())) throw wrongType(name, "a bool", value);
  return value.ptr() == Py_True;
}

std::string Arguments::toName(py::handle value, const char* name) {
  if (!PyUnicode_Check(value.ptr())) throw wrongType(name, "a str", value);
  const std::string text = value.cast<std::string>();
  if (text.find('\0') != std::string::npos) {
    throw py::value_error(std::string(name) + " must not hold a NUL character, not " +
                          py::repr(value).cast<std::string>());
  }
  return text;
}

std::string Arguments::toPath(py::handle value, const char* name) {
  const auto path = py::reinterpret_steal<py::object>(PyOS_FSPath(value.ptr()));
  if (!path) {
    PyErr_Clear();
    throw wrongType(name, "a str or an os.PathLike", value);
  }
  const auto encoded = PyBytes_Check(path.ptr())
                           ? path
                           : py::reinterpret_steal<py::object>(PyUnicode_EncodeFSDefault(path.ptr()));
  if (!encoded) throw py::error_already_set();
  const std::string text(PyBytes_AS_STRING(encoded.ptr()),
                         static_cast<size_t>(PyBytes_GET_SIZE(encoded.ptr())));
  if (text.find('\0') != std::string::npos)
    throw py::value_error(std::string(name) + " must not hold a NUL character");
  return text;
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
