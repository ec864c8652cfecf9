#include "bringup/Numbers.h"

#include <cstdio>
#include <limits>

#include "bringup/Error.h"
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

void checkRange(uint64_t address, uint64_t length) {
  if (length != 0 && address > std::numeric_limits<uint64_t>::max() - (length - 1)) {
    throw usageError("the " + std::to_string(length) + " bytes at " + hexAddress(address) +
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
