// The extension module ta_kvx._ta_kvx: the plug-in for Python code, as a host in its own right,
// through the bring-up library that kvx-ta uses too. It checks every argument while it holds the
// interpreter's lock, then releases the lock for every call of the library, a simulator or
// log4cxx, so other Python threads run meanwhile.
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
#include "python/Errors.h"
#include "python/PythonLogAppender.h"
#include "python/SimulatorBinding.h"
#include "python/TargetBinding.h"
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
    return boost::make_shared<vorn::StringAttribute>(Arguments::toName(value, name.c_str()));
  }
  if (PyIndex_Check(value.ptr())) {
    const uint64_t number = Arguments::toUnsigned(value, name.c_str(), std::numeric_limits<uint32_t>::max());
    return boost::make_shared<vorn::UInt32Attribute>(static_cast<uint32_t>(number));
  }
  if (key == kTargetAccessMethodKey && PyList_Check(value.ptr())) {
    auto values = boost::make_shared<vorn::EnumValueList>();
    for (py::handle item : py::reinterpret_borrow<py::list>(value)) {
      values->values.push_back(Arguments::toName(item, (name + "[...]").c_str()));
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
    const std::string name = Arguments::toName(key, "a key of config");
    block->setAttribute(name, attributeFrom(name, value));
  }
  return withoutGil([&] {
    return vorn::TaProcessManager::getInstance().registerClient(
        boost::make_shared<vorn::TargetConfig_TaProcessClient>(), block);
  });
}

}  // namespace
}  // namespace kvx::python

PYBIND11_MODULE(_ta_kvx, module) {
  using namespace kvx::python;
  module.doc() = "The ta_kvx plug-in for Python; use it through the package ta_kvx.";
  bindErrors(module);
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
