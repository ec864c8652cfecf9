#include "bringup/image/ImageFormat.h"

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

}  // namespace kvx::bringup
