// Collects the records logged on one log4cxx logger while it lives, so tests can assert on
// warnings. Attaches itself to the logger and detaches in its destructor.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include <log4cxx/appenderskeleton.h>
#include <log4cxx/logger.h>
#include <log4cxx/spi/loggingevent.h>

// log4cxx's class macros name helpers:: unqualified.
namespace helpers = log4cxx::helpers;

namespace kvx::test {

/// What a record carried: level, message and the location of the logging statement.
struct LogRecord {
  std::string level;
  std::string message;
  std::string fileName;
  std::string methodName;
  int line = 0;
};

}  // namespace kvx::test

/// Keeps every record it is given. In the global namespace because log4cxx's class macros
/// expect to be used there.
class RecordingAppender : public log4cxx::AppenderSkeleton {
 public:
  DECLARE_LOG4CXX_OBJECT(RecordingAppender)
  BEGIN_LOG4CXX_CAST_MAP()
  LOG4CXX_CAST_ENTRY(RecordingAppender)
  LOG4CXX_CAST_ENTRY_CHAIN(AppenderSkeleton)
  END_LOG4CXX_CAST_MAP()

  bool requiresLayout() const override { return false; }
  void close() override {}
  void append(const log4cxx::spi::LoggingEventPtr& event, log4cxx::helpers::Pool&) override;

  std::vector<kvx::test::LogRecord> records() const;

 private:
  mutable std::mutex m_mutex;
  std::vector<kvx::test::LogRecord> m_records;
};

namespace kvx::test {

class LogCapture {
 public:
  explicit LogCapture(const std::string& loggerName);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogRecord> records() const { return m_appender->records(); }
  /// Sets the logger's level (WARN, OFF, ...), restored in the destructor.
  void setLevel(const log4cxx::LevelPtr& level);

 private:
  log4cxx::LoggerPtr m_logger;
  log4cxx::LevelPtr m_savedLevel;
  std::shared_ptr<RecordingAppender> m_appender;
};

}  // namespace kvx::test
