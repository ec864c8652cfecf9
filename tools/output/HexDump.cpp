#include "tools/output/HexDump.h"

#include "bringup/Numbers.h"
#include "tools/output/Output.h"

namespace kvx::cli {
namespace {

constexpr uint64_t kLargest32BitAddress = 0xffffffffull;
constexpr char kDigits[] = "0123456789abcdef";

}  // namespace

int addressDigits(uint64_t last) { return last > kLargest32BitAddress ? 16 : 8; }

std::string wordLine(uint64_t address, int digits, unsigned width, const std::vector<uint64_t>& values) {
  std::string line = bringup::hexPadded(address, static_cast<unsigned>(digits)).substr(2) + ": ";
  for (const uint64_t value : values) line += " " + bringup::hexPadded(value, 2 * width).substr(2);
  return line;
}

HexDump::HexDump(Output& out, uint64_t address, uint64_t length)
    : m_out(out),
      m_addressDigits(addressDigits(length != 0 ? address + (length - 1) : address)),
      m_lineAddress(address) {}

void HexDump::append(const uint8_t* bytes, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    m_line[m_filled++] = bytes[i];
    if (m_filled == kBytesPerLine) {
      printLine();
    }
  }
}

void HexDump::finish() {
  if (m_filled != 0) {
    printLine();
  }
}

void HexDump::printLine() {
  if (m_out.options().json) {
    std::string hex;
    for (size_t i = 0; i < m_filled; ++i) {
      hex.push_back(kDigits[m_line[i] >> 4]);
      hex.push_back(kDigits[m_line[i] & 0xf]);
    }
    m_out.result("", {{"address", bringup::hexAddress(m_lineAddress)}, {"bytes", hex}});
    m_lineAddress += kBytesPerLine;
    m_filled = 0;
    return;
  }
  std::string text;
  text.reserve(2 * 16 + 3 + 3 * kBytesPerLine + 2 + kBytesPerLine + 2);
  for (int shift = 4 * (m_addressDigits - 1); shift >= 0; shift -= 4) {
    text.push_back(kDigits[(m_lineAddress >> shift) & 0xf]);
  }
  text.push_back(':');
  for (size_t i = 0; i < kBytesPerLine; ++i) {
    // Two groups of eight, each byte preceded by a blank and each group by one more.
    if (i % 8 == 0) {
      text.push_back(' ');
    }
    text.push_back(' ');
    if (i < m_filled) {
      text.push_back(kDigits[m_line[i] >> 4]);
      text.push_back(kDigits[m_line[i] & 0xf]);
    } else {
      text += "  ";
    }
  }
  text += "  |";
  for (size_t i = 0; i < m_filled; ++i) {
    const uint8_t c = m_line[i];
    text.push_back(c >= 0x20 && c < 0x7f ? static_cast<char>(c) : '.');
  }
  text += "|\n";
  m_out.text(text);
  m_lineAddress += kBytesPerLine;
  m_filled = 0;
}

}  // namespace kvx::cli
