#include "sim/RegisterFile.h"

#include <cstring>
#include <iterator>

namespace kvx::sim {

namespace {

struct Special {
  const char* name;
  uint8_t width;
};

// The special registers follow the general ones, in this order.
constexpr Special kSpecials[] = {{"pc", 8}, {"sp", 8}, {"ra", 8}, {"ps", 4}};
constexpr uint8_t kGeneralWidth = 8;

}  // namespace

bool RegisterFile::read(const char* name, uint64_t& value, uint8_t& width) const {
  const int index = indexOf(name);
  if (index < 0) return false;
  value = m_values[static_cast<size_t>(index)];
  width = widthOf(index);
  return true;
}

protocol::ReplyStatus RegisterFile::write(const char* name, uint64_t value) {
  const int index = indexOf(name);
  if (index < 0) return protocol::ReplyStatus::kUnknownRegister;
  const unsigned bits = 8u * widthOf(index);
  if (bits < 64 && (value >> bits) != 0) return protocol::ReplyStatus::kValueTooWide;
  m_values[static_cast<size_t>(index)] = value;
  return protocol::ReplyStatus::kOk;
}

int RegisterFile::indexOf(const char* name) {
  for (size_t i = 0; i < std::size(kSpecials); ++i) {
    if (std::strcmp(name, kSpecials[i].name) == 0) return kGeneralCount + static_cast<int>(i);
  }
  // "r" and a decimal number below 64 with no leading zero: "r0", "r7", "r63", not "r07".
  if (name[0] != 'r' || name[1] < '0' || name[1] > '9') return -1;
  if (name[2] == '\0') return name[1] - '0';
  if (name[1] == '0' || name[2] < '0' || name[2] > '9' || name[3] != '\0') return -1;
  const int number = (name[1] - '0') * 10 + (name[2] - '0');
  return number < kGeneralCount ? number : -1;
}

uint8_t RegisterFile::widthOf(int index) {
  return index < kGeneralCount ? kGeneralWidth : kSpecials[index - kGeneralCount].width;
}

}  // namespace kvx::sim
