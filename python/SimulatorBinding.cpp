#include "python/SimulatorBinding.h"

#include <pybind11/pybind11.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bringup/Installation.h"
#include "common/SimulatorProcess.h"
#include "python/Arguments.h"
#include "python/WithoutGil.h"

namespace py = pybind11;

namespace kvx::python {
namespace {

const char* const kProgramName = "kvx-agent-sim";
const char* const kProgramVariable = "KVX_AGENT_SIM";

/// The first `name` in a directory of PATH; empty when there is none.
std::string onPath(const std::string& name) {
  const char* path = std::getenv("PATH");
  const std::string directories = path != nullptr ? path : "";
  for (size_t start = 0; start <= directories.size();) {
    size_t end = directories.find(':', start);
    if (end == std::string::npos) end = directories.size();
    // An empty entry means the working directory, as for the shell.
    const std::string candidate = (end == start ? "." : directories.substr(start, end - start)) + "/" + name;
    if (::access(candidate.c_str(), X_OK) == 0) return candidate;
    start = end + 1;
  }
  return "";
}

/// The kvx-agent-sim to run: $KVX_AGENT_SIM when set; else the one installed beside the plug-in;
/// else the first on PATH.
std::string program() {
  if (const char* given = std::getenv(kProgramVariable)) return given;
  std::string found = bringup::installedProgram(kProgramName);
  if (found.empty()) found = onPath(kProgramName);
  if (found.empty()) {
    throw std::runtime_error(std::string("cannot find ") + kProgramName + ": set " + kProgramVariable +
                             ", or put it on PATH");
  }
  return found;
}

class Simulator {
 public:
  explicit Simulator(std::vector<std::string> options) {
    options.insert(options.begin(), "--quiet");
    m_process = std::make_unique<common::SimulatorProcess>(program(), std::move(options),
                                                           common::SimulatorProcess::Stderr::kCapture);
    m_endpoint = m_process->endpoint();
  }

  /// Where it listens; a RuntimeError once it is stopped, as nothing listens there any more.
  const common::Endpoint& endpoint() {
    std::lock_guard<std::mutex> guard(m_mutex);
    if (!m_process) throw std::runtime_error("the simulator is stopped");
    return m_endpoint;
  }
  bool running() {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_process != nullptr;
  }
  void stop() {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_process.reset();
  }
  std::string describe() {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_process ? "<ta_kvx.Simulator on " + m_endpoint.text() + ">"
                     : "<ta_kvx.Simulator stopped, was on " + m_endpoint.text() + ">";
  }

 private:
  std::mutex m_mutex;
  /// Guarded by m_mutex; empty once stopped.
  std::unique_ptr<common::SimulatorProcess> m_process;
  common::Endpoint m_endpoint;
};

/// kvx-agent-sim's options for the keyword arguments of Simulator.
std::vector<std::string> simulatorOptions(const py::kwargs& keywords) {
  std::vector<std::string> options;
  for (const auto& [key, value] : keywords) {
    const std::string name = key.cast<std::string>();
    if (value.is_none()) continue;
    if (name == "deny") {
      if (!PySequence_Check(value.ptr()))
        throw py::type_error("deny must be a list of (start, length) pairs");
      for (py::handle range : py::reinterpret_borrow<py::sequence>(value)) {
        if (!PySequence_Check(range.ptr()) || PySequence_Size(range.ptr()) != 2) {
          throw py::type_error("deny must hold (start, length) pairs, not " +
                               py::repr(range).cast<std::string>());
        }
        const auto pair = py::reinterpret_borrow<py::sequence>(range);
        options.push_back("--deny=" + std::to_string(Arguments::toUnsigned(pair[0], "a deny start")) + ":" +
                          std::to_string(Arguments::toUnsigned(pair[1], "a deny length")));
      }
      continue;
    }
    // memory_limit becomes --memory-limit, and so on.
    std::string option = "--" + name;
    std::replace(option.begin(), option.end(), '_', '-');
    if (name == "refuse_sessions" || name == "exclusive") {
      if (!PyBool_Check(value.ptr())) {
        throw py::type_error(name + " must be a bool, not " + Py_TYPE(value.ptr())->tp_name);
      }
      if (value.ptr() == Py_True) options.push_back(option);
    } else if (name == "bind") {
      options.push_back(option + "=" + Arguments::toName(value, "bind"));
    } else if (name == "memory_limit" || name == "latency_us" || name == "drop_after" ||
               name == "hang_after" || name == "reserve_base" || name == "reserve_size" || name == "port") {
      options.push_back(option + "=" + std::to_string(Arguments::toUnsigned(value, name.c_str())));
    } else {
      throw py::type_error("Simulator() got an unexpected keyword argument '" + name + "'");
    }
  }
  return options;
}

}  // namespace

void bindSimulator(py::module_& module) {
  py::class_<Simulator>(module, "Simulator", R"(A kvx-agent-sim child process, for checks that need a target.

Started on a free loopback port when created, stopped by stop(), on leaving a with block, or
when collected; once stopped it cannot be started again. The keyword options are the simulator's
own: deny=[(start, length), ...] refuses reads and writes touching those ranges; memory_limit
(bytes), latency_us (delay of every reply), drop_after and hang_after (close, or stop answering,
each connection after that many requests), refuse_sessions, exclusive (one session at a time),
bind (the address to listen on), port, reserve_base and reserve_size (the reservation region).
The program is $KVX_AGENT_SIM, else the one installed beside the plug-in, else the first on PATH.
Raises RuntimeError, with what the simulator said, when it cannot start.)")
      .def(py::init([](const py::kwargs& keywords) {
        const std::vector<std::string> options = simulatorOptions(keywords);
        return withoutGil([&] { return std::make_unique<Simulator>(options); });
      }))
      .def_property_readonly(
          "host", [](Simulator& simulator) { return simulator.endpoint().host; },
          "The address it listens on; RuntimeError once it is stopped.")
      .def_property_readonly(
          "port", [](Simulator& simulator) { return simulator.endpoint().port; },
          "The port it listens on; RuntimeError once it is stopped.")
      .def_property_readonly(
          "server", [](Simulator& simulator) { return simulator.endpoint().text(); },
          "HOST:PORT, as kvx-ta --server takes it; RuntimeError once it is stopped.")
      .def_property_readonly("running", &Simulator::running, "Whether it runs: False once stopped.")
      .def(
          "stop", [](Simulator& simulator) { withoutGil([&] { simulator.stop(); }); },
          "Stops the simulator; does nothing when it is stopped already.")
      .def("__enter__",
           [](py::object self) {
             if (!self.cast<Simulator&>().running()) throw std::runtime_error("the simulator is stopped");
             return self;
           })
      .def(
          "__exit__", [](Simulator& simulator, py::args) { withoutGil([&] { simulator.stop(); }); },
          "Stops the simulator.")
      .def("__repr__", &Simulator::describe);
}

}  // namespace kvx::python
