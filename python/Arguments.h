// Python arguments checked and converted for the bring-up library's calls. A value of the wrong
// type raises TypeError and a value out of range ValueError, each naming the argument and saying
// why, so that bad input never reaches the plug-in. Called with the interpreter's lock held.
#pragma once

#include <cstdint>
#include <limits>
#include <string>

#include <pybind11/pybind11.h>

namespace kvx::python {

class Arguments {
 public:
  /// An int (or anything with __index__, but not a bool) from `least` to `most`.
  static uint64_t toUnsigned(pybind11::handle value, const char* name,
                             uint64_t most = std::numeric_limits<uint64_t>::max(), uint64_t least = 0);
  /// A number of bytes to hand back as bytes: at most what a bytes object may hold.
  static uint64_t toLength(pybind11::handle value, const char* name);
  /// A new bytes object of `length` bytes, to be filled; MemoryError naming `name` when the
  /// process cannot hold it.
  static pybind11::bytes newBytes(uint64_t length, const char* name);
  /// A bool, and nothing else.
  static bool toBool(pybind11::handle value, const char* name);
  /// A str, as UTF-8, without NUL characters: names reach the plug-in as C strings.
  static std::string toName(pybind11::handle value, const char* name);
  /// A path: a str or an os.PathLike, in the file system's encoding.
  static std::string toPath(pybind11::handle value, const char* name);
  /// The bytes of a bytes-like object (bytes, bytearray, memoryview, ...), copied.
  static std::string toBytes(pybind11::handle value, const char* name);
};

}  // namespace kvx::python
