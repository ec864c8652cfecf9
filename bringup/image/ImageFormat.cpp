#include "bringup/image/ImageFormat.h"

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
  std::string names;
  const size_t count = sizeof kFormats / sizeof kFormats[0];
  for (size_t i = 0; i < count; ++i) {
    if (i != 0) names += i + 1 == count ? " or " : ", ";
    names += kFormats[i].name;
  }
  return names;
}

}  // namespace kvx::bringup
