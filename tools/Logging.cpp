#include "tools/Logging.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include <log4cxx/consoleappender.h>
#include <log4cxx/file.h>
#include <log4cxx/level.h>
#include <log4cxx/logger.h>
#include <log4cxx/logmanager.h>
#include <log4cxx/patternlayout.h>
#include <log4cxx/propertyconfigurator.h>
#include <log4cxx/spi/loggerrepository.h>
#include <log4cxx/xml/domconfigurator.h>

#include "bringup/Error.h"

namespace kvx::cli {
namespace {

const char* const kDefaultPattern = "%p %c: %m%n";
const char* const kXmlSuffix = ".xml";

bool endsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

/// Whether any logger, the root included, has an appender.
bool anyAppender() {
  if (!log4cxx::LogManager::getRootLogger()->getAllAppenders().empty()) {
    return true;
  }
  for (const log4cxx::LoggerPtr& logger : log4cxx::LogManager::getCurrentLoggers()) {
    if (!logger->getAllAppenders().empty()) {
      return true;
    }
  }
  return false;
}

}  // namespace

void configureLogging(const std::string& configFile) {
  if (configFile.empty()) {
    // log4cxx consulted LOG4CXX_CONFIGURATION and its default files when the plug-in obtained
    // its logger, as the program was loaded. A configuration that attaches no appender would
    // drop the plug-in's warnings without a trace.
    if (!anyAppender()) {
      auto layout = std::make_shared<log4cxx::PatternLayout>(kDefaultPattern);
      auto console =
          std::make_shared<log4cxx::ConsoleAppender>(layout, log4cxx::ConsoleAppender::getSystemErr());
      log4cxx::LoggerPtr root = log4cxx::LogManager::getRootLogger();
      root->addAppender(console);
      root->setLevel(log4cxx::Level::getWarn());
    }
    return;
  }
  // log4cxx reports an unreadable file only on its own internal channel; say it plainly.
  const int fd = ::open(configFile.c_str(), O_RDONLY);
  if (fd < 0) throw bringup::fileError("read log configuration", configFile, errno);
  ::close(fd);
  log4cxx::LogManager::resetConfiguration();
  const log4cxx::spi::ConfigurationStatus status =
      endsWith(configFile, kXmlSuffix) ? log4cxx::xml::DOMConfigurator::configure(configFile)
                                       : log4cxx::PropertyConfigurator::configure(log4cxx::File(configFile));
  if (status != log4cxx::spi::ConfigurationStatus::Configured) {
    throw bringup::Error(bringup::Error::Kind::kFile, "cannot use log configuration '" + configFile + "'",
                         "log4cxx did not accept it");
  }
}

}  // namespace kvx::cli
