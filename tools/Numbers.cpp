#include "tools/Numbers.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "tools/UsageError.h"

namespace kvx::cli {
namespace {

enum class Parse { kOk, kMalformed, kTooLarge };

Parse parse(const std::string& text, uint64_t& value) {
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  const std::string digits = hex ? text.substr(2) : text;
  if (digits.empty()) {
    return Parse::kMalformed;
  }
  // strtoull alone would take blanks, a sign and a second 0x; only digits get through to it.
  for (const char c : digits) {
    const bool ok = hex ? std::isxdigit(static_cast<unsigned char>(c)) != 0 : (c >= '0' && c <= '9');
    if (!ok) {
      return Parse::kMalformed;
    }
  }
  errno = 0;
  const unsigned long long result = std::strtoull(digits.c_str(), nullptr, hex ? 16 : 10);
  if (errno == ERANGE) {
    return Parse::kTooLarge;
  }
  static_assert(sizeof result == sizeof value, "unsigned long long is 64 bits");
  value = result;
  return Parse::kOk;
}

}  // namespace

bool parseUnsigned(const std::string& text, uint64_t& value) { return parse(text, value) == Parse::kOk; }

uint64_t parseNumber(const std::string& text, const std::string& what) {
  uint64_t value = 0;
  switch (parse(text, value)) {
    case Parse::kOk:
      return value;
    case Parse::kTooLarge:
      throw UsageError("invalid " + what + " '" + text + "' (more than 64 bits)");
    case Parse::kMalformed:
      break;
  }
  throw UsageError("invalid " + what + " '" + text + "' (decimal, or hex with 0x)");
}

unsigned parseAccessSize(const std::string& text) {
  uint64_t size = 0;
  if (!parseUnsigned(text, size) || size < 1 || size > kMaxAccessBytes) {
    throw UsageError("invalid size '" + text + "' (1 to " + std::to_string(kMaxAccessBytes) + ")");
  }
  return static_cast<unsigned>(size);
}

void checkRange(uint64_t address, uint64_t length) {
  if (length != 0 && address > std::numeric_limits<uint64_t>::max() - (length - 1)) {
    throw UsageError("the " + std::to_string(length) + " bytes at " + hexAddress(address) +
                     " run past the end of the 64-bit address space");
  }
}

std::string hexPadded(uint64_t value, unsigned digits) {
  char text[2 + 16 + 1];
  std::snprintf(text, sizeof text, "0x%0*llx", static_cast<int>(digits),
                static_cast<unsigned long long>(value));
  return text;
}

std::string hexAddress(uint64_t value) { return hexPadded(value, 1); }

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

}  // namespace kvx::cli
