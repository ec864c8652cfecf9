#include "bringup/image/ImageFormat.h"

#include <strings.h>

#include <vector>

#include "bringup/Text.h"

namespace kvx::bringup {
namespace {

const struct {
  ImageFormat format;
  const char* name;
  const char* description;
} kFormats[] = {
    {ImageFormat::kRaw, "raw", "raw binary"},
    {ImageFormat::kIntelHex, "ihex", "Intel HEX"},
    {ImageFormat::kSRecord, "srec", "S-record"},
    {ImageFormat::kElf, "elf", "ELF"},
};

const struct {
  const char* extension;
  ImageFormat format;
} kExtensions[] = {
    {".hex", ImageFormat::kIntelHex}, {".ihex", ImageFormat::kIntelHex}, {".srec", ImageFormat::kSRecord},
    {".s19", ImageFormat::kSRecord},  {".s28", ImageFormat::kSRecord},   {".s37", ImageFormat::kSRecord},
};

}  // namespace

const char* formatName(ImageFormat format) {
  for (const auto& known : kFormats) {
    if (known.format == format) return known.name;
  }
  return "?";
}

const char* formatDescription(ImageFormat format) {
  for (const auto& known : kFormats) {
    if (known.format == format) return known.description;
  }
  return "?";
}

std::optional<ImageFormat> parseFormat(const std::string& name) {
  for (const auto& known : kFormats) {
    if (name == known.name) return known.format;
  }
  return std::nullopt;
}

std::string formatNames() {
  std::vector<std::string> names;
  for (const auto& known : kFormats) names.push_back(known.name);
  return listing(names, "or");
}

std::optional<ImageFormat> formatFromExtension(const std::string& path) {
  const size_t slash = path.rfind('/');
  const size_t dot = path.rfind('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return std::nullopt;
  for (const auto& known : kExtensions) {
    if (::strcasecmp(path.c_str() + dot, known.extension) == 0) return known.format;
  }
  return std::nullopt;
}

}  // namespace kvx::bringup
