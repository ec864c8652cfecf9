// How the bring-up library's errors reach Python. A failure on the target or on the way to it
// raises ta_kvx.TargetError, carrying what was attempted and why, the agent call that failed and
// its status, and the address or register it named; a usage error raises ValueError, a file error
// OSError, and an interruption KeyboardInterrupt, each with the library's message.
#pragma once

namespace pybind11 {
class module_;
}  // namespace pybind11

namespace kvx::python {

/// Adds the Python exception TargetError (derived from Exception) to `module`, and has every
/// bringup::Error that a bound function throws raised as the exception its kind calls for. Call
/// once, while importing.
void bindErrors(pybind11::module_& module);

}  // namespace kvx::python
