// Collects what one log4cxx logger records while it lives, rendered by a pattern layout, one
// record a line. The logger's own level and other appenders stay as they are. Used by the demo
// to show the plug-in's warnings, and by the tests that check them. Not thread-safe.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <log4cxx/logger.h>
#include <log4cxx/writerappender.h>

namespace kvx::common {

class TextWriter;

class LogRecorder {
 public:
  /// Records what `loggerName` logs, each record rendered by `pattern` (a log4cxx
  /// PatternLayout, which should end with %n).
  LogRecorder(const std::string& loggerName, const std::string& pattern);
  ~LogRecorder();

  LogRecorder(const LogRecorder&) = delete;
  LogRecorder& operator=(const LogRecorder&) = delete;

  std::vector<std::string> lines() const;

 private:
  log4cxx::LoggerPtr m_logger;
  std::shared_ptr<TextWriter> m_writer;
  std::shared_ptr<log4cxx::WriterAppender> m_appender;
};

}  // namespace kvx::common
