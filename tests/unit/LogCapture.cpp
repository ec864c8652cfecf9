#include "LogCapture.h"

#include <log4cxx/level.h>

IMPLEMENT_LOG4CXX_OBJECT(RecordingAppender)

void RecordingAppender::append(const log4cxx::spi::LoggingEventPtr& event, log4cxx::helpers::Pool&) {
  const auto& location = event->getLocationInformation();
  kvx::test::LogRecord record;
  record.level = event->getLevel()->toString();
  record.message = event->getRenderedMessage();
  record.fileName = location.getFileName();
  record.methodName = location.getMethodName();
  record.line = location.getLineNumber();
  std::lock_guard<std::mutex> lock(m_mutex);
  m_records.push_back(std::move(record));
}

std::vector<kvx::test::LogRecord> RecordingAppender::records() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_records;
}

namespace kvx::test {

LogCapture::LogCapture(const std::string& loggerName)
    : m_logger(log4cxx::Logger::getLogger(loggerName)),
      m_savedLevel(m_logger->getLevel()),
      m_appender(std::make_shared<RecordingAppender>()) {
  m_logger->addAppender(m_appender);
}

LogCapture::~LogCapture() {
  m_logger->removeAppender(m_appender);
  m_logger->setLevel(m_savedLevel);
}

void LogCapture::setLevel(const log4cxx::LevelPtr& level) { m_logger->setLevel(level); }

}  // namespace kvx::test
