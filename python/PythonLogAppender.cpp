#include "python/PythonLogAppender.h"

#include <Python.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

#include <log4cxx/helpers/transcoder.h>
#include <log4cxx/level.h>
#include <log4cxx/logger.h>
#include <log4cxx/logmanager.h>

namespace kvx::python {
namespace {

const char* const kPythonLoggerName = "ta_kvx";
const char* const kConfigurationVariable = "LOG4CXX_CONFIGURATION";

/// The appender that attachUnlessConfigured() attached; never destroyed, as log4cxx may still
/// hold it while the process exits.
std::shared_ptr<PythonLogAppender>& attached() {
  static auto* appender = new std::shared_ptr<PythonLogAppender>();
  return *appender;
}

/// Whether any logger, the root included, has an appender.
bool anyAppender() {
  if (!log4cxx::LogManager::getRootLogger()->getAllAppenders().empty()) return true;
  const log4cxx::LoggerList loggers = log4cxx::LogManager::getCurrentLoggers();
  return std::any_of(loggers.begin(), loggers.end(),
                     [](const log4cxx::LoggerPtr& logger) { return !logger->getAllAppenders().empty(); });
}

/// Python's level for a log4cxx level: log4cxx counts in thousands of Python's units (WARN is
/// 30000, logging.WARNING is 30).
int pythonLevel(const log4cxx::LevelPtr& level) {
  constexpr int kLog4cxxPerPythonUnit = 1000;
  return std::clamp(level->toInt() / kLog4cxxPerPythonUnit, 1, 50);
}

bool interpreterRunning() {
#if PY_VERSION_HEX >= 0x030D0000
  return Py_IsInitialized() && !Py_IsFinalizing();
#else
  return Py_IsInitialized() && !_Py_IsFinalizing();
#endif
}

}  // namespace

void PythonLogAppender::close() { m_closed = true; }

bool PythonLogAppender::requiresLayout() const { return false; }

void PythonLogAppender::append(const log4cxx::spi::LoggingEventPtr& event, log4cxx::helpers::Pool& /*pool*/) {
  // After the interpreter has begun to shut down, taking its lock could end this thread.
  if (m_closed || !interpreterRunning()) return;
  LOG4CXX_ENCODE_CHAR(message, event->getRenderedMessage());
  const PyGILState_STATE state = PyGILState_Ensure();
  PyObject* logging = PyImport_ImportModule("logging");
  PyObject* logger = logging ? PyObject_CallMethod(logging, "getLogger", "s", kPythonLoggerName) : nullptr;
  // The message is passed as the format's argument, so a '%' in it is taken as it is.
  PyObject* result = logger ? PyObject_CallMethod(logger, "log", "iss", pythonLevel(event->getLevel()), "%s",
                                                  message.c_str())
                            : nullptr;
  // A failure here has nobody to report to but Python's hook for errors without a caller.
  if (result == nullptr) PyErr_WriteUnraisable(nullptr);
  Py_XDECREF(result);
  Py_XDECREF(logger);
  Py_XDECREF(logging);
  PyGILState_Release(state);
}

void PythonLogAppender::attachUnlessConfigured() {
  // The plug-in obtained its loggers as it was loaded, and log4cxx configured itself then from
  // LOG4CXX_CONFIGURATION or its default files; what it found there is the host's choice.
  if (std::getenv(kConfigurationVariable) != nullptr || anyAppender() || attached()) return;
  auto appender = std::make_shared<PythonLogAppender>();
  LOG4CXX_DECODE_CHAR(name, kPythonLoggerName);
  appender->setName(name);
  appender->setThreshold(log4cxx::Level::getWarn());
  log4cxx::LogManager::getRootLogger()->addAppender(appender);
  attached() = appender;
}

void PythonLogAppender::closeAttached() {
  if (const std::shared_ptr<PythonLogAppender>& appender = attached()) appender->close();
}

}  // namespace kvx::python
