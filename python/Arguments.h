// Python arguments checked and converted for the plug-in's calls. A value of the wrong type
// raises TypeError and a value out of range ValueError, each naming the argument, so that bad
// input never reaches the plug-in. Called with the interpreter's lock held.
#pragma once

#include <cstdint>
#include <limits>
#include <string>

#include <pybind11/pybind11.h>

namespace kvx::python {

class Arguments {
 public:
  /// An int (or anything with __index__) from 0 to `most`.
  static uint64_t toUnsigned(pybind11::handle value, const char* name,
                             uint64_t most = std::numeric_limits<uint64_t>::max());
  /// A str, as UTF-8.
  static std::string toString(pybind11::handle value, const char* name);
  /// The bytes of a bytes-like object (bytes, bytearray, memoryview, ...), copied.
  static std::string toBytes(pybind11::handle value, const char* name);
};

}  // namespace kvx::python
