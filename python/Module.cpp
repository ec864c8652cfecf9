// The extension module ta_kvx._ta_kvx: the plug-in for Python code, as a host in its own right.
// It checks every argument while it holds the interpreter's lock, then releases the lock for
// every call of the plug-in, a simulator or log4cxx, so other Python threads run meanwhile.
// ta_kvx/__init__.py re-exports it and adds what reads best in Python.

#include <pybind11/pybind11.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <boost/make_shared.hpp>

#include "client/TargetConfig_TaProcessClient.h"
#include "manager/TaProcessManager.h"
#include "python/Arguments.h"
#include "python/PythonLogAppender.h"
#include "python/Simulator.h"
#include "python/Target.h"
#include "python/TargetError.h"
#include "python/WithoutGil.h"
#include "vorn/ConfigBlock.h"

namespace py = pybind11;

namespace kvx::python {
namespace {

const char* const kTargetAccessMethodKey = "Target Access Method";

// ---- Admission ----

/// One attribute of a configuration block from the dict entry config[key]: a str as text, an int
/// as an unsigned 32-bit number, and under "Target Access Method" a list of str as an
/// enumeration.
boost::shared_ptr<vorn::ConfigAttribute> attributeFrom(const std::string& key, py::handle value) {
  const std::string name = "config['" + key + "']";
  if (PyUnicode_Check(value.ptr())) {
    return boost::make_shared<vorn::StringAttribute>(Arguments::toString(value, name.c_str()));
  }
  if (PyIndex_Check(value.ptr())) {
    const uint64_t number = Arguments::toUnsigned(value, name.c_str(), std::numeric_limits<uint32_t>::max());
    return boost::make_shared<vorn::UInt32Attribute>(static_cast<uint32_t>(number));
  }
  if (key == kTargetAccessMethodKey && PyList_Check(value.ptr())) {
    auto values = boost::make_shared<vorn::EnumValueList>();
    for (py::handle item : py::reinterpret_borrow<py::list>(value)) {
      values->values.push_back(Arguments::toString(item, (name + "[...]").c_str()));
    }
    return boost::make_shared<vorn::EnumAttribute>(values);
  }
  throw py::type_error(name + " must be a str, an int or, under '" + kTargetAccessMethodKey +
                       "', a list of str, not " + Py_TYPE(value.ptr())->tp_name);
}

int32_t admission(py::handle config) {
  if (!PyDict_Check(config.ptr())) {
    throw py::type_error(std::string("config must be a dict, not ") + Py_TYPE(config.ptr())->tp_name);
  }
  auto block = boost::make_shared<vorn::ConfigBlock>();
  for (const auto& [key, value] : py::reinterpret_borrow<py::dict>(config)) {
    const std::string name = Arguments::toString(key, "a key of config");
    block->setAttribute(name, attributeFrom(name, value));
  }
  return withoutGil([&] {
    return vorn::TaProcessManager::getInstance().registerClient(
        boost::make_shared<vorn::TargetConfig_TaProcessClient>(), block);
  });
}

// ---- Simulator ----

/// kvx-agent-sim's command-line options for the keyword arguments of Simulator.
std::vector<std::string> simulatorOptions(py::handle deny, py::handle memoryLimit, py::handle latencyUs,
                                          py::handle dropAfter, py::handle hangAfter,
                                          py::handle refuseSessions) {
  std::vector<std::string> options;
  if (!deny.is_none()) {
    if (!PySequence_Check(deny.ptr())) throw py::type_error("deny must be a list of (start, length) pairs");
    for (py::handle range : py::reinterpret_borrow<py::sequence>(deny)) {
      if (!PySequence_Check(range.ptr()) || PySequence_Size(range.ptr()) != 2) {
        throw py::type_error("deny must hold (start, length) pairs, not " +
                             py::repr(range).cast<std::string>());
      }
      const auto pair = py::reinterpret_borrow<py::sequence>(range);
      options.push_back("--deny");
      options.push_back(std::to_string(Arguments::toUnsigned(pair[0], "a deny start")) + ":" +
                        std::to_string(Arguments::toUnsigned(pair[1], "a deny length")));
    }
  }
  const std::pair<py::handle, const char*> numbers[] = {{memoryLimit, "memory_limit"},
                                                        {latencyUs, "latency_us"},
                                                        {dropAfter, "drop_after"},
                                                        {hangAfter, "hang_after"}};
  for (const auto& [value, name] : numbers) {
    if (value.is_none()) continue;
    // memory_limit becomes --memory-limit, and so on.
    std::string option = std::string("--") + name;
    std::replace(option.begin(), option.end(), '_', '-');
    options.push_back(option);
    options.push_back(std::to_string(Arguments::toUnsigned(value, name)));
  }
  if (!PyBool_Check(refuseSessions.ptr())) {
    throw py::type_error(std::string("refuse_sessions must be a bool, not ") +
                         Py_TYPE(refuseSessions.ptr())->tp_name);
  }
  if (refuseSessions.ptr() == Py_True) options.push_back("--refuse-sessions");
  return options;
}

void bindSimulator(py::module_& module) {
  py::class_<Simulator>(module, "Simulator", R"(A kvx-agent-sim child process, for checks that need a target.

Started on a free loopback port when created, stopped by stop(), on leaving a with block, or
when collected. The keyword options are the simulator's own: deny=[(start, length), ...] refuses
reads and writes touching those ranges; memory_limit (bytes), latency_us (delay of every reply),
drop_after and hang_after (close, or stop answering, each connection after that many requests),
refuse_sessions. The program is $KVX_AGENT_SIM, else the one installed beside the plug-in, else
the first on PATH. Raises RuntimeError, with what the simulator said, when it cannot start.)")
      .def(py::init([](py::handle deny, py::handle memoryLimit, py::handle latencyUs, py::handle dropAfter,
                       py::handle hangAfter, py::handle refuseSessions) {
             const std::vector<std::string> options =
                 simulatorOptions(deny, memoryLimit, latencyUs, dropAfter, hangAfter, refuseSessions);
             return withoutGil([&] { return std::make_unique<Simulator>(options); });
           }),
           py::kw_only(), py::arg("deny") = py::none(), py::arg("memory_limit") = py::none(),
           py::arg("latency_us") = py::none(), py::arg("drop_after") = py::none(),
           py::arg("hang_after") = py::none(), py::arg("refuse_sessions") = false)
      .def_property_readonly(
          "host", [](const Simulator& simulator) { return simulator.endpoint().host; },
          "The address it listens on.")
      .def_property_readonly(
          "port", [](const Simulator& simulator) { return simulator.endpoint().port; },
          "The port it listens on.")
      .def(
          "stop", [](Simulator& simulator) { withoutGil([&] { simulator.stop(); }); },
          "Stops the simulator; does nothing when it is stopped already.")
      .def("__enter__", [](py::object self) { return self; })
      .def(
          "__exit__", [](Simulator& simulator, py::args) { withoutGil([&] { simulator.stop(); }); },
          "Stops the simulator.");
}

// ---- Target ----

/// The address that starts an access of `length` bytes, which must end within 64 bits.
uint64_t rangeStart(py::handle address, uint64_t length) {
  const uint64_t start = Arguments::toUnsigned(address, "address");
  if (length != 0 && length - 1 > std::numeric_limits<uint64_t>::max() - start) {
    throw py::value_error("address + length must not pass the end of the 64-bit address space");
  }
  return start;
}

/// Binds read_uN and write_uN for accesses of `size` bytes.
void bindSizedAccess(py::class_<Target>& target, unsigned size) {
  const std::string bits = std::to_string(size * 8);
  const uint64_t most = size == 8 ? std::numeric_limits<uint64_t>::max() : (uint64_t(1) << (size * 8)) - 1;
  target.def(("read_u" + bits).c_str(),
             [size](Target& self, py::handle address) {
               const uint64_t at = Arguments::toUnsigned(address, "address");
               return withoutGil([&] { return self.readUnsigned(at, size); });
             },
             py::arg("address"),
             ("The unsigned " + bits + "-bit little-endian value at address, in one access.").c_str());
  target.def(("write_u" + bits).c_str(),
             [size, most](Target& self, py::handle address, py::handle value) {
               const uint64_t at = Arguments::toUnsigned(address, "address");
               const uint64_t number = Arguments::toUnsigned(value, "value", most);
               withoutGil([&] { self.writeUnsigned(at, number, size); });
             },
             py::arg("address"), py::arg("value"),
             ("Writes value as an unsigned " + bits + "-bit little-endian number, in one access.").c_str());
}

void bindTarget(py::module_& module) {
  py::class_<Target> target(module, "Target", R"(A target reached through the plug-in: the process that the
plug-in's manager gives for a configuration block with TaType "KVX" naming host and port.

Any thread may use any Target; every call lets other Python threads run while it waits on the
agent. A refused access, or one whose agent is gone, raises TargetError.)");
  target.def(py::init([](py::handle host, py::handle port) {
               const std::string name = Arguments::toString(host, "host");
               const auto number = static_cast<uint16_t>(Arguments::toUnsigned(port, "port", UINT16_MAX));
               return withoutGil([&] { return std::make_unique<Target>(name, number); });
             }),
             py::arg("host"), py::arg("port"));
  target.def(
      "read",
      [](Target& self, py::handle address, py::handle length) {
        const uint64_t size = Arguments::toUnsigned(length, "length");
        const uint64_t start = rangeStart(address, size);
        std::string bytes(size, '\0');
        withoutGil([&] { self.read(start, reinterpret_cast<uint8_t*>(bytes.data()), size); });
        return py::bytes(bytes);
      },
      py::arg("address"), py::arg("length"),
      "length bytes from address on, in accesses of at most 8 bytes in address order, each after the first "
      "aligned to 8 bytes.");
  target.def(
      "write",
      [](Target& self, py::handle address, py::handle data) {
        const std::string bytes = Arguments::toBytes(data, "data");
        const uint64_t start = rangeStart(address, bytes.size());
        withoutGil([&] { self.write(start, reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()); });
      },
      py::arg("address"), py::arg("data"),
      "Writes the bytes of data from address on, split as read() splits.");
  for (unsigned size : {1u, 2u, 4u, 8u}) bindSizedAccess(target, size);
  target.def(
      "read_mem",
      [](Target& self, py::handle address, py::handle count, py::handle unitSize) {
        const uint64_t at = Arguments::toUnsigned(address, "address");
        const uint64_t units = Arguments::toUnsigned(count, "count", std::numeric_limits<size_t>::max());
        const uint64_t unit =
            Arguments::toUnsigned(unitSize, "unit_size", std::numeric_limits<unsigned>::max());
        uint8_t bytes[sizeof(uint64_t)] = {};
        const size_t moved =
            withoutGil([&] { return self.readOnce(at, size_t(units), unsigned(unit), bytes); });
        return py::bytes(reinterpret_cast<const char*>(bytes), moved);
      },
      py::arg("address"), py::arg("count"), py::arg("unit_size") = 1,
      "One read_mem call of count * unit_size bytes, exactly as a host makes it: the plug-in moves at most 8 "
      "bytes, returned here, and logs a warning for a longer request.");
  target.def(
      "read_register",
      [](Target& self, py::handle name) {
        const std::string registerName = Arguments::toString(name, "register name");
        return withoutGil([&] { return self.readRegister(registerName); });
      },
      py::arg("name"), "The value of the register called name; target.registers[name] reads it too.");
  target.def(
      "write_register",
      [](Target& self, py::handle name, py::handle value) {
        const std::string registerName = Arguments::toString(name, "register name");
        const uint64_t number = Arguments::toUnsigned(value, "value");
        withoutGil([&] { self.writeRegister(registerName, number); });
      },
      py::arg("name"), py::arg("value"),
      "Writes value to the register called name, which refuses a value wider than itself.");
  target.def(
      "reserve",
      [](Target& self, py::handle size) {
        const uint64_t bytes = Arguments::toUnsigned(size, "size");
        return withoutGil([&] { return self.reserve(bytes); });
      },
      py::arg("size"),
      "The address of a newly reserved block of size bytes; TargetError when there is no room.");
  target.def(
      "unreserve",
      [](Target& self, py::handle address) {
        const uint64_t at = Arguments::toUnsigned(address, "address");
        return withoutGil([&] { return self.unreserve(at); });
      },
      py::arg("address"), "Releases the reserved block at address; False when no block starts there.");
  target.def(
      "unreserve_all", [](Target& self) { return withoutGil([&] { return self.unreserveAll(); }); },
      "Releases every reserved block; False when the agent refuses.");
}

}  // namespace
}  // namespace kvx::python

PYBIND11_MODULE(_ta_kvx, module) {
  using namespace kvx::python;
  module.doc() = "The ta_kvx plug-in for Python; use it through the package ta_kvx.";
  TargetError::bind(module);
  module.attr("TA_METHOD_SERVED") = vorn::TA_METHOD_SERVED;
  module.attr("TA_METHOD_NOT_SERVED") = vorn::TA_METHOD_NOT_SERVED;
  module.attr("TA_METHOD_MISSING") = vorn::TA_METHOD_MISSING;
  module.def("admission", &admission, py::arg("config"),
             "registerClient's answer for a configuration block built from config: a str becomes a "
             "StringAttribute, an int a UInt32Attribute, and a list of str under 'Target Access Method' an "
             "EnumAttribute.");
  bindSimulator(module);
  bindTarget(module);

  withoutGil(&PythonLogAppender::attachUnlessConfigured);
  // Records logged once the interpreter shuts down have no Python to go to.
  py::module_::import("atexit").attr("register")(py::cpp_function(&PythonLogAppender::closeAttached));
}
