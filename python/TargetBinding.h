// ta_kvx.Target: a target reached through the plug-in, with everything the bring-up library does
// to one: accesses of any length, registers, reservations, and the transfers that kvx-ta offers
// (load, verify, dump, fill, crc32, wait), from the same code. Every argument is checked while the
// interpreter's lock is held; every call of the library runs without it, and looks at Python's
// signals between accesses, so that Ctrl-C stops a long call after the access in flight.
#pragma once

namespace pybind11 {
class module_;
}  // namespace pybind11

namespace kvx::python {

/// Adds Target to `module`.
void bindTarget(pybind11::module_& module);

}  // namespace kvx::python
