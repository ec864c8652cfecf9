#include "common/LogRecorder.h"

#include <sstream>

#include <log4cxx/helpers/pool.h>
#include <log4cxx/helpers/writer.h>
#include <log4cxx/patternlayout.h>

namespace kvx::common {

/// Keeps what an appender writes, in memory.
class TextWriter : public log4cxx::helpers::Writer {
 public:
  void close(log4cxx::helpers::Pool& /*pool*/) override {}
  void flush(log4cxx::helpers::Pool& /*pool*/) override {}
  void write(const log4cxx::LogString& text, log4cxx::helpers::Pool& /*pool*/) override { m_text += text; }

  const std::string& text() const { return m_text; }

 private:
  std::string m_text;
};

LogRecorder::LogRecorder(const std::string& loggerName, const std::string& pattern)
    : m_logger(log4cxx::Logger::getLogger(loggerName)),
      m_writer(std::make_shared<TextWriter>()),
      m_appender(std::make_shared<log4cxx::WriterAppender>()) {
  m_appender->setLayout(std::make_shared<log4cxx::PatternLayout>(pattern));
  m_appender->setWriter(m_writer);
  log4cxx::helpers::Pool pool;
  m_appender->activateOptions(pool);
  m_logger->addAppender(m_appender);
}

LogRecorder::~LogRecorder() { m_logger->removeAppender(m_appender); }

std::vector<std::string> LogRecorder::lines() const {
  std::vector<std::string> lines;
  std::istringstream text(m_writer->text());
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  return lines;
}

}  // namespace kvx::common
