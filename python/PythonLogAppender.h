// Forwards the plug-in's log4cxx records to Python's logging, under the logger "ta_kvx", so that
// a Python host sees the plug-in's warnings where it sees its own. Attached to log4cxx's root
// logger on import unless the host has configured log4cxx itself, and closed at interpreter exit.
//
// log4cxx calls it on whichever thread logs, holding the appender's mutex and, for the plug-in's
// warnings, the plug-in's session lock; it takes the interpreter's lock for each record. Every
// thread therefore releases the interpreter's lock before it calls the plug-in or log4cxx, and a
// Python logging handler must not use a Target itself.
#pragma once

#include <atomic>

#include <log4cxx/appenderskeleton.h>

namespace kvx::python {

class PythonLogAppender : public log4cxx::AppenderSkeleton {
 public:
  PythonLogAppender() = default;

  // Implementations of the log4cxx Appender interface.
  void close() override;
  bool requiresLayout() const override;

  /// Attaches one appender, for warnings and worse, to the root logger, unless
  /// LOG4CXX_CONFIGURATION is set or any logger has an appender already. Call once, while
  /// importing.
  static void attachUnlessConfigured();
  /// Closes the appender attached above, if any: it drops every later record. It stays attached,
  /// so that log4cxx does not complain of loggers without an appender when daemon threads log on.
  static void closeAttached();

 protected:
  void append(const log4cxx::spi::LoggingEventPtr& event, log4cxx::helpers::Pool& pool) override;

 private:
  std::atomic<bool> m_closed{false};
};

}  // namespace kvx::python
