#include "bringup/Numbers.h"

#include <cstdio>

#include "bringup/Error.h"
#include "bringup/Ranges.h"
#include "common/Numbers.h"

namespace kvx::bringup {

bool parseUnsigned(const std::string& text, uint64_t& value) {
  return common::parseUnsigned(text, value) == common::NumberError::kNone;
}

uint64_t parseNumber(const std::string& text, const std::string& what) {
  uint64_t value = 0;
  switch (common::parseUnsigned(text, value)) {
    case common::NumberError::kNone:
      return value;
    case common::NumberError::kTooLarge:
      throw usageError("invalid " + what + " '" + text + "' (more than 64 bits)");
    case common::NumberError::kMalformed:
      break;
  }
  throw usageError("invalid " + what + " '" + text + "' (decimal without leading zeros, or hex with 0x)");
}

unsigned parseAccessSize(const std::string& text) {
  uint64_t size = 0;
  if (!parseUnsigned(text, size) || size < 1 || size > kMaxAccessBytes) {
    throw usageError("invalid size '" + text + "' (1 to " + std::to_string(kMaxAccessBytes) + ")");
  }
  return static_cast<unsigned>(size);
}

std::vector<uint8_t> parsePattern(const std::string& text, const std::string& what) {
  const uint64_t value = parseNumber(text, what);
  const bool hex = text.size() > 2 && (text[1] == 'x' || text[1] == 'X');
  size_t width = hex ? (text.size() - 2 + 1) / 2 : 1;
  while (!hex && width < kMaxAccessBytes && (value >> (8 * width)) != 0) ++width;
  if (width > kMaxAccessBytes) throw usageError("invalid " + what + " '" + text + "' (1 to 8 bytes)");
  std::vector<uint8_t> pattern(width);
  toTargetBytes(value, pattern.data(), static_cast<unsigned>(width));
  return pattern;
}

std::string hexBytes(const std::vector<uint8_t>& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const uint8_t byte : bytes) {
    text.push_back(kDigits[byte >> 4]);
    text.push_back(kDigits[byte & 0xf]);
  }
  return text;
}

std::optional<std::vector<uint8_t>> parseHexBytes(const std::string& text) {
  const auto digit = [](char c) {
    return c >= '0' && c <= '9'   ? c - '0'
           : c >= 'a' && c <= 'f' ? c - 'a' + 10
           : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                  : -1;
  };
  if (text.size() % 2 != 0) return std::nullopt;
  std::vector<uint8_t> bytes;
  for (size_t i = 0; i < text.size(); i += 2) {
    const int high = digit(text[i]);
    const int low = digit(text[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes.push_back(static_cast<uint8_t>(high << 4 | low));
  }
  return bytes;
}

std::string hexPadded(uint64_t value, unsigned digits) {
  char text[2 + 16 + 1];
  std::snprintf(text, sizeof text, "0x%0*llx", static_cast<int>(digits),
                static_cast<unsigned long long>(value));
  return text;
}

std::string hexAddress(uint64_t value) { return hexPadded(value, 1); }

std::string byteCount(uint64_t count) { return std::to_string(count) + (count == 1 ? " byte" : " bytes"); }

void toTargetBytes(uint64_t value, uint8_t* bytes, unsigned size) {
  for (unsigned i = 0; i < size; ++i) {
    bytes[i] = static_cast<uint8_t>(value >> (8 * i));
  }
}

uint64_t fromTargetBytes(const uint8_t* bytes, unsigned size) {
  uint64_t value = 0;
  for (unsigned i = 0; i < size; ++i) {
    value |= static_cast<uint64_t>(bytes[i]) << (8 * i);
  }
  return value;
}

}  // namespace kvx::bringup
