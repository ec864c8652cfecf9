// Numbers as people type them on our command lines: decimal, or hexadecimal after 0x.
#pragma once

#include <cstdint>
#include <string>

namespace kvx::common {

enum class NumberError { kNone, kMalformed, kTooLarge };

/// Reads `text` as decimal digits, or 0x (or 0X) and hex digits, and nothing else: no sign, no
/// blanks, no suffix. A decimal number with a leading zero ("010") is malformed: C would read it
/// as octal and people as decimal, so it is refused rather than guessed. On success `value` holds
/// the number; otherwise it is unchanged and the result says why.
NumberError parseUnsigned(const std::string& text, uint64_t& value);

}  // namespace kvx::common
