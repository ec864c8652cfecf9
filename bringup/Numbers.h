// Numbers as the front ends read and print them: decimal or 0x-prefixed hex on the way in,
// zero-padded hex on the way out, and values as the target holds them, least significant byte
// first.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kvx::bringup {

/// `text` as decimal digits or as 0x (or 0X) and hex digits, nothing else: no sign, no blanks, no
/// suffix. False when it is anything else or does not fit in 64 bits.
bool parseUnsigned(const std::string& text, uint64_t& value);

/// As parseUnsigned; throws a usage Error "invalid WHAT 'TEXT'" otherwise.
uint64_t parseNumber(const std::string& text, const std::string& what);

/// An access size, 1 to kMaxAccessBytes. Throws a usage Error otherwise.
unsigned parseAccessSize(const std::string& text);

/// A pattern of 1 to 8 bytes for fill or search, in target memory order, as wide as it is
/// written: 0xa5 is one byte, 0x000000a5 four; a decimal pattern takes as few bytes as its value
/// needs. Throws a usage Error naming `what` otherwise.
std::vector<uint8_t> parsePattern(const std::string& text, const std::string& what);

/// Bytes as pairs of hex digits, in order: "deadbeef".
std::string hexBytes(const std::vector<uint8_t>& bytes);
/// The bytes that pairs of hex digits spell; none when `text` is anything else.
std::optional<std::vector<uint8_t>> parseHexBytes(const std::string& text);

/// "0x" and exactly `digits` hex digits (more when the value needs them).
std::string hexPadded(uint64_t value, unsigned digits);

/// "0x" and as many hex digits as the value needs, as addresses appear in messages.
std::string hexAddress(uint64_t value);

/// "1 byte", "8 bytes".
std::string byteCount(uint64_t count);

/// `value`'s low `size` bytes (at most 8) in target memory order, least significant first.
void toTargetBytes(uint64_t value, uint8_t* bytes, unsigned size);

/// The value that `size` bytes (at most 8) in target memory order hold.
uint64_t fromTargetBytes(const uint8_t* bytes, unsigned size);

}  // namespace kvx::bringup
