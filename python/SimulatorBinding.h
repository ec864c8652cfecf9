// ta_kvx.Simulator: a kvx-agent-sim child process started for Python code, quiet, with its stderr
// kept so that a simulator that cannot start reports why. It owns its child, which stops at the
// latest when the object is collected. Once stopped, it cannot be started again.
//
// Any thread may call any method; stopping is serialised. The child ends when the thread that
// started it ends (see common::SimulatorProcess), so Python code starts it from one that outlives
// it, such as the main thread.
#pragma once

namespace pybind11 {
class module_;
}  // namespace pybind11

namespace kvx::python {

/// Adds Simulator to `module`.
void bindSimulator(pybind11::module_& module);

}  // namespace kvx::python
