// Sets up log4cxx for kvx-ta, where the plug-in's warnings go, through log4cxx's own
// configuration mechanism.
#pragma once

#include <string>

namespace kvx::cli {

/// With `configFile`, replaces whatever configuration log4cxx found with that file's
/// (DOMConfigurator for ".xml", PropertyConfigurator otherwise); throws Error (kFile) when it
/// cannot be read or used. Without it, keeps what log4cxx configured itself from
/// LOG4CXX_CONFIGURATION or its default files; when that attached no appender at all, warnings and
/// worse go to stderr as "LEVEL logger: message".
void configureLogging(const std::string& configFile);

}  // namespace kvx::cli
