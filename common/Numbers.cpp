#include "common/Numbers.h"

#include <cerrno>
#include <cstdlib>

namespace kvx::common {

NumberError parseUnsigned(const std::string& text, uint64_t& value) {
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  const std::string digits = hex ? text.substr(2) : text;
  // strtoull alone would take blanks, a sign and a second 0x; only digits get through to it.
  if (digits.empty() ||
      digits.find_first_not_of(hex ? "0123456789abcdefABCDEF" : "0123456789") != std::string::npos ||
      (!hex && digits.size() > 1 && digits[0] == '0')) {
    return NumberError::kMalformed;
  }
  errno = 0;
  const unsigned long long result = std::strtoull(digits.c_str(), nullptr, hex ? 16 : 10);
  if (errno == ERANGE) return NumberError::kTooLarge;
  static_assert(sizeof result == sizeof value, "unsigned long long is 64 bits");
  value = result;
  return NumberError::kNone;
}

}  // namespace kvx::common
