#include "bringup/image/RecordParser.h"

#include <cstdio>
#include <cstring>
#include <utility>

#include "bringup/Numbers.h"
#include "bringup/image/ImageFile.h"

namespace kvx::bringup {
namespace {

/// The longest line that can hold a record: a HEX record's ':' and 2 digits for each of its
/// 5 + 255 bytes; an S-record's "Sn" and 2 digits for each of its 1 + 255 bytes is shorter.
constexpr size_t kMaxRecordChars = 1 + 2 * (5 + 255);

/// Blanks around a line, a carriage return among them, and the ^Z that old tools end a file with.
bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f' || c == '\x1a'; }

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

std::string hexByte(unsigned value) {
  char text[3];
  std::snprintf(text, sizeof text, "%02X", value & 0xff);
  return text;
}

uint64_t bigEndian(const uint8_t* bytes, size_t count) {
  uint64_t value = 0;
  for (size_t i = 0; i < count; ++i) value = value << 8 | bytes[i];
  return value;
}

/// The bytes of the address field of each S-record type, S0 to S9; 0 for the reserved S4.
constexpr size_t kSRecordAddressBytes[] = {2, 2, 3, 4, 0, 2, 3, 4, 3, 2};

}  // namespace

RecordParser::RecordParser(ImageFile& file, ImageFormat format, Image::Warn warn)
    : m_file(file), m_format(format), m_warn(std::move(warn)), m_piece(Image::kPieceBytes) {}

bool RecordParser::next(Record& record) {
  const char mark = m_format == ImageFormat::kIntelHex ? ':' : 'S';
  std::string_view line;
  while (!m_endLine && nextLine(line)) {
    if (line.empty()) continue;
    if (line[0] != mark) {
      if (!m_warnedGarbage) warn(here() + "warning: ignoring lines that are not records");
      m_warnedGarbage = true;
      continue;
    }
    if (line.size() > kMaxRecordChars) throw malformed(here() + "longer than any record");
    if (m_format == ImageFormat::kIntelHex) {
      decode(line.substr(1), 2);
      if (intelRecord(record)) return true;
    } else {
      if (line.size() < 2 || line[1] < '0' || line[1] > '9') {
        throw malformed(here() + "unknown record type '" + std::string(line.substr(0, 2)) + "'");
      }
      decode(line.substr(2), 3);
      if (sRecord(line[1], record)) return true;
    }
  }
  finish();
  return false;
}

Error RecordParser::malformed(const std::string& reason) const {
  return Error(Error::Kind::kFile, "cannot read " + m_file.name() + " as " + formatDescription(m_format),
               reason);
}

bool RecordParser::nextLine(std::string_view& line) {
  m_partial.clear();
  for (;;) {
    if (m_begin < m_end) {
      const char* start = reinterpret_cast<const char*>(m_piece.data()) + m_begin;
      const size_t left = m_end - m_begin;
      const auto* newline = static_cast<const char*>(std::memchr(start, '\n', left));
      const size_t length = newline != nullptr ? static_cast<size_t>(newline - start) : left;
      // Of a line longer than any record, only that it is too long matters: the rest is not kept.
      const size_t room = kMaxRecordChars + 1 - std::min(kMaxRecordChars + 1, m_partial.size());
      m_partial.append(start, std::min(length, room));
      m_begin += newline != nullptr ? length + 1 : length;
      if (newline != nullptr) break;
    }
    if (m_atEnd) {
      if (m_partial.empty()) return false;
      break;
    }
    m_begin = 0;
    m_end = m_file.read(m_offset, m_piece.data(), m_piece.size());
    m_offset += m_end;
    m_atEnd = m_end < m_piece.size();
  }
  ++m_lineNumber;
  std::swap(m_line, m_partial);
  line = trimmed(m_line);
  return true;
}

void RecordParser::decode(std::string_view digits, size_t column) {
  m_bytes.clear();
  for (size_t i = 0; i < digits.size(); i += 2) {
    const int high = hexValue(digits[i]);
    const int low = i + 1 < digits.size() ? hexValue(digits[i + 1]) : -1;
    if (high < 0 || low < 0) {
      throw malformed(here() + "hexadecimal digit expected at column " +
                      std::to_string(column + i + (high < 0 ? 0 : 1)));
    }
    m_bytes.push_back(static_cast<uint8_t>(high << 4 | low));
  }
  // Both formats start with a count: HEX's of the data bytes alone, which its address, type and
  // checksum follow; an S-record's of all the bytes after it.
  const bool hex = m_format == ImageFormat::kIntelHex;
  const size_t expected = m_bytes.empty() ? 0 : m_bytes[0] + (hex ? 5u : 1u);
  if (m_bytes.size() < (hex ? 5u : 2u) || m_bytes.size() != expected) {
    throw malformed(here() + "the record holds " + byteCount(m_bytes.size()) + ", its count calls for " +
                    std::to_string(expected));
  }
  unsigned sum = 0;
  for (const uint8_t byte : m_bytes) sum += byte;
  // With its checksum, a HEX record adds up to 0x00 and an S-record to 0xff.
  const unsigned due = hex ? 0x00 : 0xff;
  if ((sum & 0xff) != due) {
    throw malformed(here() + "checksum mismatch (" + hexByte(sum) + " != " + hexByte(due) + ")");
  }
}

bool RecordParser::intelRecord(Record& record) {
  const size_t count = m_bytes[0];
  const uint64_t offset = bigEndian(&m_bytes[1], 2);
  const uint8_t type = m_bytes[3];
  const uint8_t* data = &m_bytes[4];
  const auto expect = [&](size_t bytes, const char* what) {
    if (count != bytes) {
      throw malformed(here() + "the " + what + " record holds " + byteCount(count) + ", where it takes " +
                      std::to_string(bytes));
    }
  };
  switch (type) {
    case 0x00: {
      ++m_dataRecords;
      if (count == 0) return false;
      const uint64_t address = m_base + offset;
      // An extended segment address makes addresses wrap within their 64 KiB segment; the linear
      // ones wrap at 4 GiB. Either way the bytes would land below the address the record gives.
      if (m_segmented && offset + count > 0x10000) {
        throw malformed(here() + "the " + byteCount(count) + " at " + hexAddress(address) +
                        " run past the end of the 64 KiB segment at " + hexAddress(m_base));
      }
      if (address + count > 0x100000000) {
        throw malformed(here() + "the " + byteCount(count) + " at " + hexAddress(address) +
                        " run past the end of the 32-bit address space");
      }
      record = {m_lineNumber, address, data, count};
      return true;
    }
    case 0x01:
      expect(0, "end-of-file");
      m_endLine = m_lineNumber;
      return false;
    case 0x02:
      expect(2, "extended segment address");
      m_base = bigEndian(data, 2) << 4;
      m_segmented = true;
      return false;
    case 0x03:
      expect(4, "start segment address");
      m_entry = (bigEndian(data, 2) << 4) + bigEndian(data + 2, 2);
      return false;
    case 0x04:
      expect(2, "extended linear address");
      m_base = bigEndian(data, 2) << 16;
      m_segmented = false;
      return false;
    case 0x05:
      expect(4, "start linear address");
      m_entry = bigEndian(data, 4);
      return false;
    default:
      throw malformed(here() + "unknown record type " + hexByte(type));
  }
}

bool RecordParser::sRecord(char type, Record& record) {
  const int kind = type - '0';
  if (!m_seenRecord && kind != 0) warn(here() + "warning: no header record");
  m_seenRecord = true;
  const size_t addressBytes = kSRecordAddressBytes[kind];
  if (addressBytes == 0) throw malformed(here() + "S4 records are reserved");
  // The count byte, the address, the data and the checksum.
  if (m_bytes.size() < 1 + addressBytes + 1) {
    throw malformed(here() + "too short for an S" + type + " record, which has a " +
                    std::to_string(8 * addressBytes) + "-bit address");
  }
  const uint64_t address = bigEndian(&m_bytes[1], addressBytes);
  const uint8_t* data = &m_bytes[1 + addressBytes];
  const size_t count = m_bytes.size() - addressBytes - 2;
  switch (kind) {
    case 1:
    case 2:
    case 3:
      ++m_dataRecords;
      if (count == 0) return false;
      if (address + count > uint64_t{1} << (8 * addressBytes)) {
        throw malformed(here() + "the " + byteCount(count) + " at " + hexAddress(address) +
                        " run past the end of the " + std::to_string(8 * addressBytes) +
                        "-bit address space of an S" + type + " record");
      }
      record = {m_lineNumber, address, data, count};
      return true;
    case 5:
    case 6:
      if (address != m_dataRecords) {
        throw malformed(here() + "the count record says " + std::to_string(address) +
                        " data records, the file holds " + std::to_string(m_dataRecords) + " before it");
      }
      return false;
    case 7:
    case 8:
    case 9:
      m_entry = address;
      m_endLine = m_lineNumber;
      return false;
    default:  // S0: a header, such as the file's name, which says nothing of what to load.
      return false;
  }
}

void RecordParser::finish() {
  if (m_finished) return;
  m_finished = true;
  const char* end = m_format == ImageFormat::kIntelHex ? "end-of-file record" : "termination record";
  if (!m_endLine) {
    warn("line " + std::to_string(m_lineNumber + 1) + ": warning: no " + end +
         (m_format == ImageFormat::kIntelHex ? "" : " (S7, S8 or S9)") + ": the file may be cut short");
    return;
  }
  // What follows is read only as far as the first line that is not blank, which names it.
  if (!m_warn) return;
  std::string_view line;
  while (nextLine(line)) {
    if (line.empty()) continue;
    warn(here() + "warning: ignoring what follows the " + end + " of line " + std::to_string(*m_endLine));
    return;
  }
}

std::string RecordParser::here() const { return "line " + std::to_string(m_lineNumber) + ": "; }

void RecordParser::warn(const std::string& warning) const {
  if (m_warn) m_warn(warning);
}

}  // namespace kvx::bringup
